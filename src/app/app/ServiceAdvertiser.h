#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace pointlane {

// Advertises one DNS-SD service (name, type, domain, port) on the local network through the
// system's mDNS responder. publish() returns at once; registration goes on in the background,
// picks another name when the chosen one is taken, and waits for the responder when it is not
// running (one line on standard output says so). stop() withdraws the service.
//
// Thread safe: every member may be called from any thread; the responder's callbacks run on
// the advertiser's own background thread. The destructor stops the advertisement.
class ServiceAdvertiser {
  public:
    enum class State {
        stopped,           // not published, or withdrawn
        waitingForDaemon,  // the mDNS responder cannot be reached; the service is not visible
        registering,       // handed to the responder, not confirmed yet
        established,       // visible on the network under registeredName()
        failed,            // the responder refused the service; see the printed line
    };

    // domain "local." (or empty) means the responder's default domain.
    ServiceAdvertiser(std::string domain, std::string type, std::string name, std::uint16_t port);
    ~ServiceAdvertiser();
    ServiceAdvertiser(const ServiceAdvertiser&) = delete;
    ServiceAdvertiser& operator=(const ServiceAdvertiser&) = delete;

    // Starts the advertisement without waiting for it. False only when the background machinery
    // could not be started at all; an absent responder is not a failure. Publishing an already
    // published advertiser does nothing and answers true.
    bool publish();
    // Withdraws the service and releases the connection to the responder. Idempotent.
    void stop();

    State state() const;
    // The name the service is (being) registered under: the requested one, or the alternative
    // chosen after a name collision. Empty until the first registration attempt.
    std::string registeredName() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace pointlane
