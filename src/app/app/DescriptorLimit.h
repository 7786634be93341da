#pragma once

namespace pointlane {

// The process's limit on open descriptors (RLIMIT_NOFILE). Every page, seat and client holds
// some; the usual soft limit of 1024 runs out long before the machine does.
//
// Thread safe (one system call each); meant for the start, before any thread opens sockets.
class DescriptorLimit final {
  public:
    DescriptorLimit() = delete;

    // Raises the soft limit to the hard limit; the soft limit in force afterwards, -1 when it
    // can't be read or has no bound.
    static long raiseToHardLimit();
};

}  // namespace pointlane
