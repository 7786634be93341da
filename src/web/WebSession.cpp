#include "WebSession.h"

#include <algorithm>

#include "BrowserMessage.h"
#include "ClientServer.h"
#include "PokerClient.h"
#include "support/WorkQueue.h"

namespace pointlane {

namespace {

constexpr const char* kGameHost = "127.0.0.1";
// A local game server answers at once; this only keeps a wedged one from holding a worker.
constexpr double kAnswerTimeoutSeconds = 10.0;

std::optional<nlohmann::json> jsonOf(const std::optional<Bytes>& data) {
    if (!data) {
        return std::nullopt;
    }
    auto value = nlohmann::json::parse(data->begin(), data->end(), nullptr, false);
    if (value.is_discarded()) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::string> textField(const std::optional<nlohmann::json>& object, const char* key) {
    if (!object || !object->is_object()) {
        return std::nullopt;
    }
    const auto found = object->find(key);
    if (found == object->end() || !found->is_string()) {
        return std::nullopt;
    }
    return found->get<std::string>();
}

}  // namespace

WebSession::WebSession(std::string tab, int gamePort, QObject* parent)
    : QObject(parent),
      tab_(std::move(tab)),
      gamePort_(gamePort),
      worker_(std::make_unique<WorkQueue>("pointlane.web.session")) {
    grace_.setSingleShot(true);
    connect(&grace_, &QTimer::timeout, this, [this] {
        if (phase_ == Phase::seated) {
            // Nobody is looking: log out quietly and end.
            phase_ = Phase::leaving;
            run([this] {
                if (client_) {
                    client_->logout();
                }
                QMetaObject::invokeMethod(
                    this, [this] { finish({}); }, Qt::QueuedConnection);
            });
        } else if (phase_ == Phase::lobby || phase_ == Phase::ended) {
            finish({});
        } else {
            // A login or logout is on its way; look again once it is done.
            grace_.start(100);
        }
    });
}

WebSession::~WebSession() {
    // The worker finishes what it has (each call ends with the game server's answer or its
    // time-out) before the connection and the push listener go.
    worker_.reset();
    push_.reset();
    client_.reset();
}

void WebSession::run(std::function<void()> block) {
    worker_->async(std::move(block));
}

void WebSession::send(const nlohmann::json& message) {
    if (sink_) {
        sink_(message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    }
}

void WebSession::sendError(const std::string& text) {
    send({{"type", "error"}, {"text", text}});
}

void WebSession::login(bool admin, const std::string& name, const std::string& game) {
    if (phase_ != Phase::lobby) {
        sendError(phase_ == Phase::joining ? "Joining the table: please wait."
                                           : "You are already at the table.");
        return;
    }
    if (!push_) {
        ClientServer::Options options;
        options.onNotification = [this](Request notification) {
            QMetaObject::invokeMethod(
                this, [this, n = std::move(notification)] { notified(n); }, Qt::QueuedConnection);
        };
        options.onClosed = [this] {
            QMetaObject::invokeMethod(
                this, [this] { pushClosed(); }, Qt::QueuedConnection);
        };
        push_ = ClientServer::start(std::move(options));
        if (!push_) {
            sendError("The web table could not open a connection for you; try again.");
            return;
        }
    }
    phase_ = Phase::joining;
    name_ = name;
    early_.clear();
    run([this, admin, name, game, pushPort = push_->port()] {
        if (!client_) {
            client_ = PokerClient::connect(gamePort_, kGameHost, kAnswerTimeoutSeconds);
        }
        const bool connected = client_ != nullptr;
        std::optional<Answer> answer;
        if (client_) {
            answer = admin ? client_->loginAdmin(name, game, pushPort)
                           : client_->loginPlayer(name, pushPort);
            if (!answer) {
                client_.reset();  // the connection is broken or out of step; start afresh
            }
        }
        QMetaObject::invokeMethod(
            this,
            [this, admin, answer = std::move(answer), connected] {
                loginDone(admin, answer, connected);
            },
            Qt::QueuedConnection);
    });
}

void WebSession::loginDone(bool admin, std::optional<Answer> answer, bool connected) {
    if (phase_ != Phase::joining) {
        return;
    }
    if (!answer || answer->code != 0) {
        phase_ = Phase::lobby;
        early_.clear();
        sendError(!connected ? "The game server is not running."
                  : !answer  ? "The game server did not answer."
                             : BrowserMessage::refusalText(answer->message));
        send({{"type", "refused"}});
        return;
    }
    phase_ = Phase::seated;
    admin_ = admin;
    game_ = answer->info.value_or("");
    players_.clear();
    if (auto list = jsonOf(answer->data); list && list->is_array()) {
        for (const auto& player : *list) {
            if (player.is_string()) {
                players_.push_back(player.get<std::string>());
            }
        }
    }
    std::sort(players_.begin(), players_.end());
    // The answer's list was taken before the notifications that came with or after the login.
    for (const auto& notification : early_) {
        apply(notification);
    }
    early_.clear();
    sendTable();
}

void WebSession::notified(const Request& notification) {
    if (phase_ == Phase::joining) {
        early_.push_back(notification);
        return;
    }
    if (phase_ != Phase::seated) {
        return;
    }
    apply(notification);
    sendTable();
}

void WebSession::apply(const Request& notification) {
    const auto data = jsonOf(notification.data);
    switch (notification.request) {
        case RequestCode::playerAdded:
            if (auto name = textField(data, "player_name");
                name && std::find(players_.begin(), players_.end(), *name) == players_.end()) {
                players_.push_back(*name);
                std::sort(players_.begin(), players_.end());
            }
            break;
        case RequestCode::playerRemoved:
            if (auto name = textField(data, "player_name")) {
                players_.erase(std::remove(players_.begin(), players_.end(), *name),
                               players_.end());
            }
            break;
        case RequestCode::initNewDeal:
            item_ = textField(data, "title").value_or("");
            played_ = 0;
            opened_ = false;
            cards_.clear();
            pick_.reset();
            hasPlayed_ = false;
            elected_ = false;
            break;
        case RequestCode::play:
            ++played_;
            break;
        case RequestCode::openCards:
            opened_ = true;
            // The cards are open: this seat shows its own pick to everyone, once per item.
            if (hasPlayed_ && pick_ && !elected_) {
                elected_ = true;
                request([name = name_, card = *pick_](PokerClient& client) {
                    return client.cardElected(name, card);
                });
            }
            break;
        case RequestCode::cardElected: {
            auto name = textField(data, "player_name");
            auto card = textField(data, "symbol");
            if (name && card) {
                auto same = std::find_if(cards_.begin(), cards_.end(),
                                         [&](const auto& entry) { return entry.first == *name; });
                if (same != cards_.end()) {
                    same->second = *card;
                } else {
                    cards_.emplace_back(*name, *card);
                }
            }
            break;
        }
        default:
            break;
    }
}

void WebSession::request(std::function<std::optional<Answer>(PokerClient&)> call) {
    run([this, call = std::move(call)] {
        std::optional<Answer> answer;
        if (client_) {
            answer = call(*client_);
        }
        if (answer && answer->code == 0) {
            return;
        }
        std::string text = answer ? BrowserMessage::refusalText(answer->message)
                                  : "The game server did not answer.";
        QMetaObject::invokeMethod(
            this, [this, text = std::move(text)] { sendError(text); }, Qt::QueuedConnection);
    });
}

void WebSession::putUpItem(const std::string& title) {
    if (phase_ != Phase::seated) {
        sendError("Join the table first.");
        return;
    }
    request([title](PokerClient& client) { return client.initNewDeal(title); });
}

void WebSession::play(const std::string& card) {
    if (phase_ != Phase::seated) {
        sendError("Join the table first.");
        return;
    }
    if (opened_) {
        sendError("The cards are already open.");
        return;
    }
    pick_ = card;
    if (hasPlayed_) {
        // Changing the pick before the cards open: everyone already counted this card.
        sendTable();
        return;
    }
    hasPlayed_ = true;
    sendTable();
    request([](PokerClient& client) { return client.play(); });
}

void WebSession::openCards() {
    if (phase_ != Phase::seated) {
        sendError("Join the table first.");
        return;
    }
    request([](PokerClient& client) { return client.openCards(); });
}

void WebSession::leave() {
    if (phase_ != Phase::seated) {
        finish({});
        return;
    }
    phase_ = Phase::leaving;
    run([this] {
        std::optional<Answer> answer;
        if (client_) {
            answer = client_->logout();
        }
        const bool ok = answer && answer->code == 0;
        QMetaObject::invokeMethod(
            this,
            [this, ok] {
                if (!ok) {
                    finish("The game server did not take your leave; the game may have ended.");
                } else {
                    finish(admin_ ? "You ended the game. The server is closing."
                                  : "You left the table.");
                }
            },
            Qt::QueuedConnection);
    });
}

void WebSession::pushClosed() {
    // The server closes a seat's push connection when the seat logs out or the game ends.
    if (phase_ == Phase::seated) {
        finish("The game has ended: the administrator closed the table.");
    }
}

void WebSession::finish(const std::string& text) {
    if (phase_ == Phase::ended) {
        return;
    }
    phase_ = Phase::ended;
    grace_.stop();
    if (!text.empty()) {
        send({{"type", "ended"}, {"text", text}});
    }
    if (onFinished_) {
        onFinished_();
    }
}

void WebSession::startGrace(int graceMs) {
    grace_.start(std::max(0, graceMs));
}

void WebSession::resume() {
    grace_.stop();
    sendTable();
}

void WebSession::sendTable() {
    if (phase_ == Phase::seated) {
        send(table());
    }
}

nlohmann::json WebSession::table() const {
    nlohmann::json cards = nlohmann::json::array();
    for (const auto& [name, card] : cards_) {
        cards.push_back({{"name", name}, {"card", card}});
    }
    return {{"type", "table"},        {"you", name_},
            {"admin", admin_},        {"game", game_},
            {"players", players_},    {"item", item_ ? nlohmann::json(*item_) : nlohmann::json()},
            {"played", played_},      {"opened", opened_},
            {"cards", cards},         {"pick", pick_ ? nlohmann::json(*pick_) : nlohmann::json()},
            {"hasPlayed", hasPlayed_}};
}

}  // namespace pointlane
