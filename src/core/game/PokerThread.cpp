#include "game/PokerThread.h"

#include <utility>

#include "game/RequestGate.h"
#include "game/SelfConnectionGuard.h"
#include "transport/Answer.h"
#include "transport/Frame.h"

namespace pointlane {

LoginCounter PokerThread::counter;

PokerThread::PokerThread(std::shared_ptr<Socket> connection, Handlers handlers)
    : ServerThread(std::move(connection)), RequestHandlers(std::move(handlers)) {
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
    bool first = true;
    while (!finished()) {
        const std::optional<Bytes> body = receiveFrame(*socket);
        if (!body) {
            return;
        }
        // A connection from one of our own push connections would carry our notifications
        // back in as requests. Its first frame can only be a notification, sent after the
        // push connection was filed, so checking then can't miss it.
        if (std::exchange(first, false) && SelfConnectionGuard::isOwnPush(*socket)) {
            return;
        }
        // Once the run is ending, a request read now is neither handled nor answered.
        RequestGate& gate = RequestGate::shared();
        if (!gate.enter(socket)) {
            return;
        }
        const struct Leave {
            RequestGate& gate;
            const std::shared_ptr<Socket>& socket;
            ~Leave() { gate.leave(socket); }
        } leave{gate, socket};
        dispatch(*body);
    }
}

void PokerThread::dispatch(const Bytes& body) {
    const std::optional<Request> request = Request::fromJson(body);
    if (!request) {
        // The connection stays usable: a client can follow a bad frame with a good one.
        if (const std::optional<Bytes> answer =
                Answer::refusal(AnswerMessage::unknownRequest, "").json()) {
            sendFrame(*socket, *answer);
        }
        return;
    }
    const auto entry = call.find(request->request);
    if (entry != call.end() && entry->second) {
        entry->second(*request, socket);
    }
}

}  // namespace pointlane
