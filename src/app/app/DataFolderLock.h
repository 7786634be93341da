#pragma once

#include <memory>
#include <string>

namespace pointlane {

// One server per data folder: an exclusive lock (flock) on a lock file in the folder, holding
// the process id of its owner, taken before the database is touched and kept until the process
// ends. A second server on the same folder would empty the first one's known players and fight
// it over the database file.
//
// Owns the lock file's descriptor; the lock goes with it (or with the process). Main thread
// only.
class DataFolderLock final {
  public:
    // The lock on path, or nullptr with refusal set to the one line that says why not: which
    // process holds it, or what kept the file from being locked.
    static std::unique_ptr<DataFolderLock> acquire(const std::string& path, std::string& refusal);
    ~DataFolderLock();
    DataFolderLock(const DataFolderLock&) = delete;
    DataFolderLock& operator=(const DataFolderLock&) = delete;

  private:
    explicit DataFolderLock(int descriptor) : descriptor_(descriptor) {}
    int descriptor_;
};

}  // namespace pointlane
