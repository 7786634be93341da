#include "game/PokerThread.h"

#include <utility>

#include "transport/Answer.h"
#include "transport/Frame.h"

namespace pointlane {

LoginCounter PokerThread::counter;

PokerThread::PokerThread(std::shared_ptr<Socket> socket, Handlers handlers)
    : ServerThread(std::move(socket)), RequestHandlers(std::move(handlers)) {
    // playerAdded and playerRemoved only ever travel from the server to clients' servers, so
    // they have no entry and get no answer.
    call = {
        {RequestCode::loginAdmin, loginAdmin},
        {RequestCode::loginPlayer, loginPlayer},
        {RequestCode::logout, logout},
        {RequestCode::initNewDeal, initNewDeal},
        {RequestCode::play, play},
        {RequestCode::openCards, openCards},
        {RequestCode::cardElected, cardElected},
    };
}

void PokerThread::run() {
    const auto finished = [this] {
        return !socket || socket->socketFileDescriptor() == -1 || shouldClose;
    };
    while (!finished()) {
        const std::optional<Bytes> body = receiveFrame(*socket);
        if (!body) {
            return;
        }
        const std::optional<Request> request = Request::fromJson(*body);
        if (!request) {
            // The connection stays usable: a client can follow a bad frame with a good one.
            if (const std::optional<Bytes> answer =
                    Answer::refusal(AnswerMessage::unknownRequest, "").json()) {
                sendFrame(*socket, *answer);
            }
            continue;
        }
        const auto entry = call.find(request->request);
        if (entry != call.end() && entry->second) {
            entry->second(*request, socket);
        }
    }
}

}  // namespace pointlane
