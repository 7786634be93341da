#pragma once

#include <atomic>

namespace pointlane::testing {

// An SQLite file system that passes everything to the default one, except that writes and
// syncs fail with SQLITE_FULL while failing is on: a disk that is full on demand. install()
// makes it the default for connections opened from then on; uninstall() puts the previous
// default back. Threading: the switch may be flipped from any thread.
class FaultyFileSystem final {
  public:
    static void install();
    static void uninstall();
    static void setFailing(bool failing);
};

}  // namespace pointlane::testing
