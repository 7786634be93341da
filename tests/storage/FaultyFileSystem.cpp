#include "FaultyFileSystem.h"

#include <sqlite3.h>

#include <cstddef>
#include <cstring>

namespace pointlane::testing {

namespace {

std::atomic<bool> diskFull{false};
std::atomic<int> refused{0};
sqlite3_vfs* real = nullptr;
sqlite3_vfs faulty{};

// Our file, followed in memory by the real file system's file.
struct FaultyFile {
    sqlite3_file base;
    sqlite3_file* inner() { return reinterpret_cast<sqlite3_file*>(this + 1); }
};

sqlite3_file* innerOf(sqlite3_file* file) {
    return reinterpret_cast<FaultyFile*>(file)->inner();
}

int refuse() {
    refused.fetch_add(1);
    return SQLITE_FULL;
}

int fileClose(sqlite3_file* f) {
    return innerOf(f)->pMethods->xClose(innerOf(f));
}
int fileRead(sqlite3_file* f, void* buffer, int amount, sqlite3_int64 offset) {
    return innerOf(f)->pMethods->xRead(innerOf(f), buffer, amount, offset);
}
int fileWrite(sqlite3_file* f, const void* buffer, int amount, sqlite3_int64 offset) {
    if (diskFull.load()) {
        return refuse();
    }
    return innerOf(f)->pMethods->xWrite(innerOf(f), buffer, amount, offset);
}
int fileTruncate(sqlite3_file* f, sqlite3_int64 size) {
    return innerOf(f)->pMethods->xTruncate(innerOf(f), size);
}
int fileSync(sqlite3_file* f, int flags) {
    if (diskFull.load()) {
        return refuse();
    }
    return innerOf(f)->pMethods->xSync(innerOf(f), flags);
}
int fileSize(sqlite3_file* f, sqlite3_int64* size) {
    return innerOf(f)->pMethods->xFileSize(innerOf(f), size);
}
int fileLock(sqlite3_file* f, int level) {
    return innerOf(f)->pMethods->xLock(innerOf(f), level);
}
int fileUnlock(sqlite3_file* f, int level) {
    return innerOf(f)->pMethods->xUnlock(innerOf(f), level);
}
int fileCheckReservedLock(sqlite3_file* f, int* out) {
    return innerOf(f)->pMethods->xCheckReservedLock(innerOf(f), out);
}
int fileControl(sqlite3_file* f, int op, void* arg) {
    return innerOf(f)->pMethods->xFileControl(innerOf(f), op, arg);
}
int fileSectorSize(sqlite3_file* f) {
    return innerOf(f)->pMethods->xSectorSize(innerOf(f));
}
int fileDeviceCharacteristics(sqlite3_file* f) {
    return innerOf(f)->pMethods->xDeviceCharacteristics(innerOf(f));
}
int fileShmMap(sqlite3_file* f, int page, int size, int extend, void volatile** out) {
    return innerOf(f)->pMethods->xShmMap(innerOf(f), page, size, extend, out);
}
int fileShmLock(sqlite3_file* f, int offset, int n, int flags) {
    return innerOf(f)->pMethods->xShmLock(innerOf(f), offset, n, flags);
}
void fileShmBarrier(sqlite3_file* f) {
    innerOf(f)->pMethods->xShmBarrier(innerOf(f));
}
int fileShmUnmap(sqlite3_file* f, int deleteFlag) {
    return innerOf(f)->pMethods->xShmUnmap(innerOf(f), deleteFlag);
}
int fileFetch(sqlite3_file* f, sqlite3_int64 offset, int amount, void** out) {
    return innerOf(f)->pMethods->xFetch(innerOf(f), offset, amount, out);
}
int fileUnfetch(sqlite3_file* f, sqlite3_int64 offset, void* page) {
    return innerOf(f)->pMethods->xUnfetch(innerOf(f), offset, page);
}

const sqlite3_io_methods methods = {
    3,
    fileClose,
    fileRead,
    fileWrite,
    fileTruncate,
    fileSync,
    fileSize,
    fileLock,
    fileUnlock,
    fileCheckReservedLock,
    fileControl,
    fileSectorSize,
    fileDeviceCharacteristics,
    fileShmMap,
    fileShmLock,
    fileShmBarrier,
    fileShmUnmap,
    fileFetch,
    fileUnfetch,
};

int vfsOpen(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
    auto* ours = reinterpret_cast<FaultyFile*>(file);
    ours->base.pMethods = nullptr;
    const int rc = real->xOpen(real, name, ours->inner(), flags, outFlags);
    if (rc == SQLITE_OK && ours->inner()->pMethods != nullptr) {
        ours->base.pMethods = &methods;
    } else if (ours->inner()->pMethods != nullptr) {
        ours->inner()->pMethods->xClose(ours->inner());
    }
    return rc;
}
int vfsDelete(sqlite3_vfs*, const char* name, int syncDir) {
    return real->xDelete(real, name, syncDir);
}
int vfsAccess(sqlite3_vfs*, const char* name, int flags, int* out) {
    return real->xAccess(real, name, flags, out);
}
int vfsFullPathname(sqlite3_vfs*, const char* name, int size, char* out) {
    return real->xFullPathname(real, name, size, out);
}
void* vfsDlOpen(sqlite3_vfs*, const char* name) {
    return real->xDlOpen(real, name);
}
void vfsDlError(sqlite3_vfs*, int size, char* out) {
    real->xDlError(real, size, out);
}
void (*vfsDlSym(sqlite3_vfs*, void* handle, const char* symbol))(void) {
    return real->xDlSym(real, handle, symbol);
}
void vfsDlClose(sqlite3_vfs*, void* handle) {
    real->xDlClose(real, handle);
}
int vfsRandomness(sqlite3_vfs*, int size, char* out) {
    return real->xRandomness(real, size, out);
}
int vfsSleep(sqlite3_vfs*, int microseconds) {
    return real->xSleep(real, microseconds);
}
int vfsCurrentTime(sqlite3_vfs*, double* out) {
    return real->xCurrentTime(real, out);
}
int vfsGetLastError(sqlite3_vfs*, int size, char* out) {
    return real->xGetLastError(real, size, out);
}
int vfsCurrentTimeInt64(sqlite3_vfs*, sqlite3_int64* out) {
    return real->xCurrentTimeInt64(real, out);
}

}  // namespace

void FaultyFileSystem::install() {
    if (real == nullptr) {
        real = sqlite3_vfs_find(nullptr);
        faulty.iVersion = 2;
        faulty.szOsFile = static_cast<int>(sizeof(FaultyFile)) + real->szOsFile;
        faulty.mxPathname = real->mxPathname;
        faulty.zName = "pointlane-faulty";
        faulty.xOpen = vfsOpen;
        faulty.xDelete = vfsDelete;
        faulty.xAccess = vfsAccess;
        faulty.xFullPathname = vfsFullPathname;
        faulty.xDlOpen = vfsDlOpen;
        faulty.xDlError = vfsDlError;
        faulty.xDlSym = vfsDlSym;
        faulty.xDlClose = vfsDlClose;
        faulty.xRandomness = vfsRandomness;
        faulty.xSleep = vfsSleep;
        faulty.xCurrentTime = vfsCurrentTime;
        faulty.xGetLastError = vfsGetLastError;
        faulty.xCurrentTimeInt64 = vfsCurrentTimeInt64;
    }
    sqlite3_vfs_register(&faulty, 1);
}

void FaultyFileSystem::uninstall() {
    diskFull.store(false);
    if (real != nullptr) {
        sqlite3_vfs_unregister(&faulty);
        sqlite3_vfs_register(real, 1);
    }
}

void FaultyFileSystem::setFailing(bool failing) {
    diskFull.store(failing);
}

bool FaultyFileSystem::failing() {
    return diskFull.load();
}

int FaultyFileSystem::refusals() {
    return refused.load();
}

}  // namespace pointlane::testing
