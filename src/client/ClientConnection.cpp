#include "ClientConnection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cmath>

#include "transport/Frame.h"
#include "transport/SocketFunctions.h"

namespace pointlane {

std::unique_ptr<ClientConnection> ClientConnection::connect(int port, const std::string& host,
                                                            double receiveTimeoutSeconds) {
    auto socket = Socket::create(-1);
    if (!socket) {
        return nullptr;
    }
    const int descriptor = socket->socketFileDescriptor();
    if (connect_socket(descriptor, host.c_str(), port) != 0) {
        return nullptr;
    }
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (receiveTimeoutSeconds > 0) {
        timeval timeout{};
        timeout.tv_sec = static_cast<time_t>(receiveTimeoutSeconds);
        timeout.tv_usec = static_cast<suseconds_t>(
            (receiveTimeoutSeconds - std::floor(receiveTimeoutSeconds)) * 1e6);
        ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    }
    return std::unique_ptr<ClientConnection>(new ClientConnection(std::move(socket)));
}

bool ClientConnection::send(const Request& request) {
    const auto body = request.json();
    return body && sendBody(*body);
}

bool ClientConnection::sendBody(const Bytes& body) {
    Bytes frame = frameHeader(static_cast<std::int32_t>(body.size()));
    frame.insert(frame.end(), body.begin(), body.end());
    return socket_->writeData(frame);
}

bool ClientConnection::sendRaw(const Bytes& bytes) {
    return socket_->writeData(bytes);
}

std::optional<Bytes> ClientConnection::receiveBody() {
    return receiveFrame(*socket_);
}

std::optional<Answer> ClientConnection::receiveAnswer() {
    const auto body = receiveBody();
    if (!body) {
        return std::nullopt;
    }
    return Answer::fromJson(*body);
}

std::optional<Answer> ClientConnection::request(const Request& request) {
    if (!send(request)) {
        return std::nullopt;
    }
    return receiveAnswer();
}

void ClientConnection::close() {
    socket_->shutdown();
}

}  // namespace pointlane
