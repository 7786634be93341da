#pragma once

#include <memory>
#include <optional>
#include <string>

#include "support/Bytes.h"
#include "transport/Answer.h"
#include "transport/Request.h"
#include "transport/Socket.h"

namespace pointlane {

// A client's connection to the server: request frames out, answer frames in.
//
// Threading: one thread uses a connection at a time; close() may be called from any thread.
class ClientConnection final {
  public:
    // Connects to host:port. Reads give up after receiveTimeoutSeconds, so a missing answer
    // shows as nothing instead of a hang. nullptr when the connection can't be made.
    static std::unique_ptr<ClientConnection> connect(int port,
                                                     const std::string& host = "127.0.0.1",
                                                     double receiveTimeoutSeconds = 10.0);

    // Sends the request as one frame.
    bool send(const Request& request);
    // Sends body as one frame, whatever it holds.
    bool sendBody(const Bytes& body);
    // Sends bytes with no framing at all.
    bool sendRaw(const Bytes& bytes);

    // The next frame's body; nothing on end of stream, error or time-out.
    std::optional<Bytes> receiveBody();
    // The next frame decoded as an answer; nothing when there is none or it doesn't decode.
    std::optional<Answer> receiveAnswer();
    // send() then receiveAnswer().
    std::optional<Answer> request(const Request& request);

    void close();
    Socket& socket() { return *socket_; }

  private:
    explicit ClientConnection(std::shared_ptr<Socket> socket) : socket_(std::move(socket)) {}
    std::shared_ptr<Socket> socket_;
};

}  // namespace pointlane
