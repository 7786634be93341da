#pragma once

#include <QObject>
#include <QTimer>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "transport/Answer.h"
#include "transport/Request.h"

namespace pointlane {

class ClientServer;
class PokerClient;
class WorkQueue;

// One browser tab's seat at the table: one ordinary protocol session (a connection to the game
// port on 127.0.0.1 and a push listener of its own) plus what the page shows, kept here so that
// a page that comes back finds the table as it is. The token never leaves this object.
//
// Threading: owned by and used on the Qt thread that made it. The blocking protocol calls run
// on the session's own worker queue; their answers and the pushed notifications are handed
// back to the Qt thread (queued calls on this object) before anything is changed.
class WebSession final : public QObject {
  public:
    enum class Phase { lobby, joining, seated, leaving, ended };

    WebSession(std::string tab, int gamePort, QObject* parent = nullptr);
    ~WebSession() override;

    const std::string& tab() const { return tab_; }
    Phase phase() const { return phase_; }
    bool isAdmin() const { return admin_; }
    const std::string& gameName() const { return game_; }

    // Where the session's messages to its page go (a JSON text each); empty while no page is
    // attached, and then messages are dropped: a page that comes back is sent the table.
    void setSink(std::function<void(const std::string&)> sink) { sink_ = std::move(sink); }
    // Called once when the session is over (logged out, or the game ended) and may be dropped.
    void setOnFinished(std::function<void()> finished) { onFinished_ = std::move(finished); }

    void login(bool admin, const std::string& name, const std::string& game);
    void putUpItem(const std::string& title);
    void play(const std::string& card);
    void openCards();
    void leave();

    // The page went away: after graceMs the session logs out (or just ends when not seated),
    // unless resume() is called first.
    void startGrace(int graceMs);
    // A page took the session over: the grace ends and the page is sent the table.
    void resume();
    // Sends the current table to the page (only when seated).
    void sendTable();

    // The table as the page is sent it: {"type":"table", ...}.
    nlohmann::json table() const;

  private:
    void run(std::function<void()> block);
    void sendError(const std::string& text);
    void send(const nlohmann::json& message);
    void loginDone(bool admin, std::optional<Answer> answer, bool connected);
    void notified(const Request& notification);
    void apply(const Request& notification);
    void pushClosed();
    void finish(const std::string& text);
    // Sends a request on the worker and hands a refusal back as an error on the page.
    void request(std::function<std::optional<Answer>(PokerClient&)> call);

    std::string tab_;
    int gamePort_;
    Phase phase_ = Phase::lobby;
    std::function<void(const std::string&)> sink_;
    std::function<void()> onFinished_;
    QTimer grace_;

    // What the table shows.
    std::string name_;
    std::string game_;
    bool admin_ = false;
    std::vector<std::string> players_;
    std::optional<std::string> item_;
    int played_ = 0;
    bool opened_ = false;
    std::vector<std::pair<std::string, std::string>> cards_;  // name, card, in arrival order
    std::optional<std::string> pick_;
    bool hasPlayed_ = false;
    bool elected_ = false;
    // Notifications that arrived while the login answer was still on its way.
    std::vector<Request> early_;

    // The connection is used only on the worker queue; the push listener is made and dropped
    // on the Qt thread. Both go after the worker has stopped.
    std::unique_ptr<PokerClient> client_;
    std::unique_ptr<ClientServer> push_;
    std::unique_ptr<WorkQueue> worker_;
};

}  // namespace pointlane
