#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/thread-watch.h>
#include <avahi-common/timeval.h>

#include <cstdio>
#include <mutex>

#include "app/ServiceAdvertiser.h"

namespace pointlane {

namespace {

// How long to wait before asking for the D-Bus connection again when the bus itself is gone;
// a missing daemon on a live bus is noticed by the client library without polling.
constexpr unsigned kReconnectMilliseconds = 2000;
// A bound on renaming, so that a responder answering "collision" to everything cannot keep
// the background thread busy for ever.
constexpr int kMaxRenames = 100;

void printLine(const std::string& line) {
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
}

}  // namespace

// Everything below runs either on the poll thread (callbacks) or with the poll thread stopped
// or locked (publish/stop), so the Avahi handles need no lock of their own; what state() and
// registeredName() read is copied under stateMutex.
struct ServiceAdvertiser::Impl {
    Impl(std::string serviceDomain, std::string serviceType, std::string serviceName,
         std::uint16_t servicePort)
        : domain(std::move(serviceDomain)),
          type(std::move(serviceType)),
          requestedName(std::move(serviceName)),
          port(servicePort) {}

    const std::string domain;
    const std::string type;
    const std::string requestedName;
    const std::uint16_t port;

    std::mutex apiMutex;  // serialises publish() and stop()
    AvahiThreadedPoll* poll = nullptr;
    AvahiClient* client = nullptr;
    AvahiEntryGroup* group = nullptr;
    AvahiTimeout* reconnectTimer = nullptr;
    std::string name;  // the name being registered
    bool unreachableReported = false;

    mutable std::mutex stateMutex;
    State state = State::stopped;    // guarded by stateMutex
    std::string registeredNameCopy;  // guarded by stateMutex

    const char* domainOrDefault() const {
        if (domain.empty() || domain == "local." || domain == "local") {
            return nullptr;
        }
        return domain.c_str();
    }

    void setState(State newState) {
        std::lock_guard lock(stateMutex);
        state = newState;
        registeredNameCopy = newState == State::stopped ? std::string() : name;
    }

    void reportUnreachable() {
        setState(State::waitingForDaemon);
        if (!unreachableReported) {
            unreachableReported = true;
            printLine("DNS-SD: no Avahi daemon reachable; the service is not advertised");
        }
    }

    void reportFailure(const std::string& what, int error) {
        setState(State::failed);
        printLine("DNS-SD: " + what + " (" + avahi_strerror(error) +
                  "); the service is not advertised");
    }

    void pickAlternativeName() {
        char* alternative = avahi_alternative_service_name(name.c_str());
        if (alternative != nullptr) {
            name = alternative;
            avahi_free(alternative);
        }
    }

    // Called on the poll thread, or before it runs.
    void connect() {
        int error = 0;
        AvahiClient* created = avahi_client_new(avahi_threaded_poll_get(poll), AVAHI_CLIENT_NO_FAIL,
                                                &Impl::onClientState, this, &error);
        if (created == nullptr) {
            // With NO_FAIL this only happens when the system bus itself cannot be reached.
            reportUnreachable();
            scheduleReconnect(kReconnectMilliseconds);
            return;
        }
        client = created;
    }

    void scheduleReconnect(unsigned milliseconds) {
        const AvahiPoll* api = avahi_threaded_poll_get(poll);
        timeval when;
        avahi_elapse_time(&when, milliseconds, 0);
        if (reconnectTimer == nullptr) {
            reconnectTimer = api->timeout_new(api, &when, &Impl::onReconnectTimer, this);
        } else {
            api->timeout_update(reconnectTimer, &when);
        }
    }

    void dropClient() {
        if (group != nullptr) {
            avahi_entry_group_free(group);
            group = nullptr;
        }
        if (client != nullptr) {
            avahi_client_free(client);
            client = nullptr;
        }
    }

    void registerService(AvahiClient* owner) {
        if (group == nullptr) {
            group = avahi_entry_group_new(owner, &Impl::onGroupState, this);
            if (group == nullptr) {
                reportFailure("cannot create the service entry", avahi_client_errno(owner));
                return;
            }
        }
        if (!avahi_entry_group_is_empty(group)) {
            return;  // already handed over; the group reports how it goes
        }
        for (int attempt = 0;; ++attempt) {
            const int result = avahi_entry_group_add_service(
                group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, static_cast<AvahiPublishFlags>(0),
                name.c_str(), type.c_str(), domainOrDefault(), nullptr, port, nullptr);
            if (result == AVAHI_OK) {
                break;
            }
            // Another service of this responder already has the name.
            if (result == AVAHI_ERR_COLLISION && attempt < kMaxRenames) {
                pickAlternativeName();
                avahi_entry_group_reset(group);
                continue;
            }
            reportFailure("cannot add service '" + name + "'", result);
            return;
        }
        const int committed = avahi_entry_group_commit(group);
        if (committed < 0) {
            reportFailure("cannot register service '" + name + "'", committed);
            return;
        }
        setState(State::registering);
    }

    static void onClientState(AvahiClient* client, AvahiClientState clientState, void* context) {
        auto* self = static_cast<Impl*>(context);
        switch (clientState) {
            case AVAHI_CLIENT_S_RUNNING:
                self->unreachableReported = false;
                self->registerService(client);
                break;
            case AVAHI_CLIENT_S_COLLISION:
            case AVAHI_CLIENT_S_REGISTERING:
                // The host name is being (re)negotiated; the service goes up again once the
                // client is running.
                if (self->group != nullptr) {
                    avahi_entry_group_reset(self->group);
                }
                self->setState(State::registering);
                break;
            case AVAHI_CLIENT_CONNECTING:
                // The daemon is not on the bus (yet); the library reconnects by itself.
                if (self->group != nullptr) {
                    avahi_entry_group_free(self->group);
                    self->group = nullptr;
                }
                self->reportUnreachable();
                break;
            case AVAHI_CLIENT_FAILURE: {
                const int error = avahi_client_errno(client);
                if (error == AVAHI_ERR_DISCONNECTED || error == AVAHI_ERR_NO_DAEMON) {
                    self->reportUnreachable();
                } else {
                    self->reportFailure("lost the Avahi connection", error);
                }
                // The client is useless now, but it is the caller of this callback: replace it
                // from a timer instead.
                self->scheduleReconnect(0);
                break;
            }
        }
    }

    static void onGroupState(AvahiEntryGroup* group, AvahiEntryGroupState groupState,
                             void* context) {
        auto* self = static_cast<Impl*>(context);
        switch (groupState) {
            case AVAHI_ENTRY_GROUP_ESTABLISHED:
                self->setState(State::established);
                break;
            case AVAHI_ENTRY_GROUP_COLLISION:
                // Someone else on the network has the name.
                self->pickAlternativeName();
                avahi_entry_group_reset(group);
                self->registerService(avahi_entry_group_get_client(group));
                break;
            case AVAHI_ENTRY_GROUP_FAILURE:
                self->reportFailure("the service registration failed",
                                    avahi_client_errno(avahi_entry_group_get_client(group)));
                break;
            case AVAHI_ENTRY_GROUP_UNCOMMITED:
            case AVAHI_ENTRY_GROUP_REGISTERING:
                break;
        }
    }

    static void onReconnectTimer(AvahiTimeout* timer, void* context) {
        auto* self = static_cast<Impl*>(context);
        avahi_threaded_poll_get(self->poll)->timeout_update(timer, nullptr);
        self->dropClient();
        self->connect();
    }
};

ServiceAdvertiser::ServiceAdvertiser(std::string domain, std::string type, std::string name,
                                     std::uint16_t port)
    : impl_(std::make_unique<Impl>(std::move(domain), std::move(type), std::move(name), port)) {}

ServiceAdvertiser::~ServiceAdvertiser() {
    stop();
}

bool ServiceAdvertiser::publish() {
    std::lock_guard lock(impl_->apiMutex);
    if (impl_->poll != nullptr) {
        return true;
    }
    impl_->poll = avahi_threaded_poll_new();
    if (impl_->poll == nullptr) {
        printLine("DNS-SD: cannot start the advertisement thread; the service is not advertised");
        impl_->setState(State::failed);
        return false;
    }
    impl_->name = impl_->requestedName;
    impl_->unreachableReported = false;
    impl_->setState(State::registering);
    if (avahi_threaded_poll_start(impl_->poll) < 0) {
        avahi_threaded_poll_free(impl_->poll);
        impl_->poll = nullptr;
        printLine("DNS-SD: cannot start the advertisement thread; the service is not advertised");
        impl_->setState(State::failed);
        return false;
    }
    avahi_threaded_poll_lock(impl_->poll);
    impl_->connect();
    avahi_threaded_poll_unlock(impl_->poll);
    return true;
}

void ServiceAdvertiser::stop() {
    std::lock_guard lock(impl_->apiMutex);
    if (impl_->poll == nullptr) {
        return;
    }
    avahi_threaded_poll_stop(impl_->poll);
    if (impl_->group != nullptr) {
        avahi_entry_group_reset(impl_->group);
    }
    impl_->dropClient();
    if (impl_->reconnectTimer != nullptr) {
        avahi_threaded_poll_get(impl_->poll)->timeout_free(impl_->reconnectTimer);
        impl_->reconnectTimer = nullptr;
    }
    avahi_threaded_poll_free(impl_->poll);
    impl_->poll = nullptr;
    impl_->setState(State::stopped);
}

ServiceAdvertiser::State ServiceAdvertiser::state() const {
    std::lock_guard lock(impl_->stateMutex);
    return impl_->state;
}

std::string ServiceAdvertiser::registeredName() const {
    std::lock_guard lock(impl_->stateMutex);
    return impl_->registeredNameCopy;
}

}  // namespace pointlane
