#include "ClientServer.h"

#include <sys/socket.h>

#include "transport/Frame.h"
#include "transport/SocketFunctions.h"

namespace pointlane {

std::unique_ptr<ClientServer> ClientServer::start(Options options) {
    auto listener = Socket::create(-1);
    if (!listener) {
        return nullptr;
    }
    const int descriptor = listener->socketFileDescriptor();
    if (options.receiveBufferSize > 0) {
        // Set before listen() so that accepted connections start with it (and a small window).
        setopt_socket(descriptor, SO_RCVBUF, options.receiveBufferSize);
    }
    if (bind_socket_loopback(descriptor, 0) != 0 || socket_listen(descriptor) != 0) {
        return nullptr;
    }
    auto server = std::unique_ptr<ClientServer>(new ClientServer(std::move(listener), options));
    if (server->port_ == 0) {
        return nullptr;
    }
    server->acceptor_ = std::thread([raw = server.get()] { raw->acceptLoop(); });
    return server;
}

ClientServer::ClientServer(std::shared_ptr<Socket> listener, Options options)
    : listener_(std::move(listener)), options_(options), port_(listener_->localPort()) {}

ClientServer::~ClientServer() {
    stop();
}

void ClientServer::acceptLoop() {
    for (;;) {
        const int listening = listener_->socketFileDescriptor();
        if (listening == -1) {
            return;
        }
        const int descriptor = accept_socket(listening);
        if (descriptor == -1) {
            std::lock_guard lock(mutex_);
            if (stopping_) {
                return;
            }
            continue;
        }
        auto connection = Socket::create(descriptor);
        if (!connection) {
            continue;
        }
        if (options_.receiveBufferSize > 0) {
            setopt_socket(descriptor, SO_RCVBUF, options_.receiveBufferSize);
        }
        std::lock_guard lock(mutex_);
        if (stopping_) {
            connection->shutdown();
            return;
        }
        ++accepted_;
        connections_.push_back(connection);
        if (options_.reads) {
            startReadersLocked();
        }
        changed_.notify_all();
    }
}

void ClientServer::resume() {
    std::lock_guard lock(mutex_);
    if (stopping_) {
        return;
    }
    options_.reads = true;
    startReadersLocked();
}

void ClientServer::startReadersLocked() {
    for (; readConnections_ < connections_.size(); ++readConnections_) {
        readers_.emplace_back(
            [this, connection = connections_[readConnections_]] { readLoop(connection); });
    }
}

void ClientServer::readLoop(std::shared_ptr<Socket> connection) {
    for (;;) {
        auto body = receiveFrame(*connection);
        auto request = body ? Request::fromJson(*body) : std::nullopt;
        if (request && options_.onNotification) {
            // Outside the lock: the callback may take its time or call back into this object.
            options_.onNotification(std::move(*request));
            continue;
        }
        std::unique_lock lock(mutex_);
        if (!body) {
            ++closed_;
            const bool stopping = stopping_;
            changed_.notify_all();
            lock.unlock();
            if (!stopping && options_.onClosed) {
                options_.onClosed();
            }
            return;
        }
        if (request) {
            notifications_.push_back(std::move(*request));
            bodies_.push_back(std::move(*body));
        } else {
            ++undecodable_;
        }
        changed_.notify_all();
    }
}

std::vector<Request> ClientServer::notifications() const {
    std::lock_guard lock(mutex_);
    return notifications_;
}

std::vector<Bytes> ClientServer::bodies() const {
    std::lock_guard lock(mutex_);
    return bodies_;
}

int ClientServer::undecodable() const {
    std::lock_guard lock(mutex_);
    return undecodable_;
}

int ClientServer::accepted() const {
    std::lock_guard lock(mutex_);
    return accepted_;
}

int ClientServer::closed() const {
    std::lock_guard lock(mutex_);
    return closed_;
}

bool ClientServer::waitFor(const std::function<bool(const std::vector<Request>&)>& predicate,
                           std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return predicate(notifications_); });
}

bool ClientServer::waitForCount(std::size_t n, std::chrono::milliseconds timeout) const {
    return waitFor([n](const std::vector<Request>& received) { return received.size() >= n; },
                   timeout);
}

bool ClientServer::waitForClosed(std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return closed_ > 0; });
}

void ClientServer::clear() {
    std::lock_guard lock(mutex_);
    notifications_.clear();
    bodies_.clear();
}

void ClientServer::stop() {
    std::vector<std::thread> readers;
    {
        std::lock_guard lock(mutex_);
        if (stopping_) {
            return;
        }
        stopping_ = true;
        // Shutting down wakes the threads blocked on these sockets; the descriptors are closed
        // only when the sockets go, after those threads.
        for (auto& connection : connections_) {
            connection->shutdown();
        }
        readers.swap(readers_);
    }
    listener_->shutdown();
    if (acceptor_.joinable()) {
        acceptor_.join();
    }
    for (auto& reader : readers) {
        reader.join();
    }
}

}  // namespace pointlane
