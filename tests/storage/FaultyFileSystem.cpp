#include "FaultyFileSystem.h"

#include <sqlite3.h>

namespace pointlane::testing {

namespace {

std::atomic<bool> diskFull{false};
sqlite3_vfs* real = nullptr;
sqlite3_vfs faulty{};

// Our file, followed in memory by the real file system's file.
sqlite3_file* inner(sqlite3_file* file) {
    return file + 1;
}

// Hands a file method on to the real file; writes and syncs fail while the disk is full.
template <auto method, bool canFail = false, typename R, typename... A>
R pass(sqlite3_file* file, A... args) {
    if constexpr (canFail) {
        if (diskFull.load()) {
            return SQLITE_FULL;
        }
    }
    return (inner(file)->pMethods->*method)(inner(file), args...);
}

using M = sqlite3_io_methods;
const sqlite3_io_methods methods = {
    3,
    pass<&M::xClose>,
    pass<&M::xRead>,
    pass<&M::xWrite, true>,
    pass<&M::xTruncate>,
    pass<&M::xSync, true>,
    pass<&M::xFileSize>,
    pass<&M::xLock>,
    pass<&M::xUnlock>,
    pass<&M::xCheckReservedLock>,
    pass<&M::xFileControl>,
    pass<&M::xSectorSize>,
    pass<&M::xDeviceCharacteristics>,
    pass<&M::xShmMap>,
    pass<&M::xShmLock>,
    pass<&M::xShmBarrier>,
    pass<&M::xShmUnmap>,
    pass<&M::xFetch>,
    pass<&M::xUnfetch>,
};

int open(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
    file->pMethods = nullptr;
    const int rc = real->xOpen(real, name, inner(file), flags, outFlags);
    if (rc == SQLITE_OK && inner(file)->pMethods != nullptr) {
        file->pMethods = &methods;
    } else if (inner(file)->pMethods != nullptr) {
        inner(file)->pMethods->xClose(inner(file));
    }
    return rc;
}

}  // namespace

void FaultyFileSystem::install() {
    if (real == nullptr) {
        // Everything but opening files is the real file system's own.
        real = sqlite3_vfs_find(nullptr);
        faulty = *real;
        faulty.pNext = nullptr;
        faulty.szOsFile = static_cast<int>(sizeof(sqlite3_file)) + real->szOsFile;
        faulty.zName = "pointlane-faulty";
        faulty.xOpen = open;
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

}  // namespace pointlane::testing
