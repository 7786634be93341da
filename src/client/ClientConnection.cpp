#include "ClientConnection.h"

#include "transport/Frame.h"
#include "transport/SocketFunctions.h"

namespace pointlane {

std::unique_ptr<ClientConnection> ClientConnection::connect(int port, const std::string& host,
                                                            double receiveTimeoutSeconds) {
    auto socket = Socket::create(-1);
    if (!socket) {
        return nullptr;
    }
    if (connect_socket(socket->socketFileDescriptor(), host.c_str(), port) != 0) {
        return nullptr;
    }
    if (receiveTimeoutSeconds > 0) {
        socket->setReceiveTimeout(receiveTimeoutSeconds);
    }
    return std::unique_ptr<ClientConnection>(new ClientConnection(std::move(socket)));
}

bool ClientConnection::send(const Request& request) {
    const auto body = request.json();
    return body && sendBody(*body);
}

bool ClientConnection::sendBody(const Bytes& body) {
    return sendFrame(*socket_, body);
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
