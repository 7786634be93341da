#include "WebGateway.h"

#include <QDateTime>
#include <QTimer>
#include <QWebSocket>
#include <algorithm>
#include <mutex>
#include <nlohmann/json.hpp>

#include "AgendaText.h"
#include "BrowserMessage.h"
#include "TableJson.h"
#include "WebSession.h"
#include "rules/TextRules.h"
#include "table/TableModel.h"

namespace pointlane {

namespace {

std::string dump(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

const char* const kNotYours = "Only the facilitator runs the table.";

}  // namespace

// Carries the model's change signals (on any thread) to the gateway's thread, at most one
// redraw waiting at a time; the gateway cuts it off before it goes.
struct WebGateway::Relay {
    std::mutex mutex;
    WebGateway* target = nullptr;  // guarded by mutex
    bool pending = false;          // guarded by mutex

    void changed(const std::shared_ptr<Relay>& self) {
        std::lock_guard<std::mutex> lock(mutex);
        if (target == nullptr || pending) {
            return;
        }
        pending = true;
        // Posted under the lock: the gateway can't be going while the call is queued, and once
        // it is gone Qt drops the queued call with it.
        QMetaObject::invokeMethod(
            target,
            [self] {
                WebGateway* gateway = nullptr;
                {
                    std::lock_guard<std::mutex> relock(self->mutex);
                    self->pending = false;
                    gateway = self->target;
                }
                if (gateway) {
                    gateway->tableChanged();
                }
            },
            Qt::QueuedConnection);
    }
};

WebGateway::WebGateway(Options options, QObject* parent)
    : QObject(parent), options_(std::move(options)), relay_(std::make_shared<Relay>()) {
    if (options_.table == nullptr) {
        ownTable_ = std::make_unique<TableModel>();
        options_.table = ownTable_.get();
    }
    table_ = options_.table;
    relay_->target = this;
    subscription_ = table_->subscribe([relay = relay_] { relay->changed(relay); });
    countdown_.setSingleShot(true);
    connect(&countdown_, &QTimer::timeout, this, [this] { countdownEnded(); });
    snapshot_ = table_->snapshot();
    tableText_ = dump(TableJson::of(snapshot_));
}

WebGateway::~WebGateway() {
    table_->unsubscribe(subscription_);
    {
        std::lock_guard<std::mutex> lock(relay_->mutex);
        relay_->target = nullptr;
    }
    for (auto& [socket, page] : pages_) {
        socket->disconnect(this);
    }
    for (auto& [seat, session] : seats_) {
        session->setCallbacks({});
    }
}

void WebGateway::accept(QWebSocket* socket) {
    socket->setParent(this);
    socket->setMaxAllowedIncomingFrameSize(kMaxFrameSize);
    socket->setMaxAllowedIncomingMessageSize(kMaxFrameSize);
    if (static_cast<int>(pages_.size()) >= options_.maxPages) {
        socket->sendTextMessage(QStringLiteral(
            R"({"type":"error","text":"Too many pages are open on the table; try again later."})"));
        socket->close(QWebSocketProtocol::CloseCodePolicyViolated,
                      QStringLiteral("Too many pages"));
        socket->abort();
        socket->deleteLater();
        return;
    }
    Page page;
    page.tokens = options_.burst;
    page.refilled = std::chrono::steady_clock::now();
    pages_[socket] = page;
    connect(socket, &QWebSocket::textMessageReceived, this,
            [this, socket](const QString& text) { received(socket, text); });
    connect(socket, &QWebSocket::binaryMessageReceived, this, [this, socket](const QByteArray&) {
        if (pages_.count(socket) != 0 && withinRate(pages_[socket])) {
            sendError(socket, "The page sent something that is not a message.");
        }
    });
    connect(socket, &QWebSocket::disconnected, this, [this, socket] { gone(socket); });
    closeUnlessHelloWithin(socket);
}

void WebGateway::closeUnlessHelloWithin(QWebSocket* socket) {
    // An open socket that never says which page it is would hold a place for nothing.
    QTimer::singleShot(options_.helloTimeoutMs, socket, [this, socket] {
        auto found = pages_.find(socket);
        if (found != pages_.end() && !found->second.greeted) {
            drop(socket, QStringLiteral("No hello"));
        }
    });
}

bool WebGateway::withinRate(Page& page) {
    const auto now = std::chrono::steady_clock::now();
    const double seconds = std::chrono::duration<double>(now - page.refilled).count();
    page.refilled = now;
    page.tokens =
        std::min<double>(options_.burst, page.tokens + seconds * options_.messagesPerSecond);
    if (page.tokens < 1) {
        return false;
    }
    page.tokens -= 1;
    return true;
}

void WebGateway::received(QWebSocket* socket, const QString& text) {
    auto found = pages_.find(socket);
    if (found == pages_.end()) {
        return;
    }
    Page& page = found->second;
    if (!withinRate(page)) {
        sendError(socket, "This page sent too many messages and was disconnected.");
        drop(socket, QStringLiteral("Too many messages"));
        return;
    }
    const QByteArray utf8 = text.toUtf8();
    const BrowserMessageResult parsed = BrowserMessage::parse(
        std::string_view(utf8.constData(), static_cast<std::size_t>(utf8.size())));
    if (!parsed.ok()) {
        sendError(socket, parsed.error);
        return;
    }
    const BrowserMessage& message = *parsed.message;
    using Type = BrowserMessage::Type;
    if (message.type == Type::ping) {
        send(socket, R"({"type":"pong"})");
        return;
    }
    if (message.type == Type::watch) {
        if (page.seat.empty() && !page.watcher) {
            page.watcher = true;
            page.greeted = true;
            sendWelcome(socket);
            sendTable(socket);
        }
        return;
    }
    if (page.watcher) {
        sendError(socket, "This page only watches the table.");
        return;
    }
    if (message.type == Type::hello) {
        hello(socket, message.seat);
        return;
    }
    if (page.seat.empty()) {
        sendError(socket, "This page is out of step with the table; please reload it.");
        return;
    }
    WebSession* session = sessionOf(socket);
    if (message.type == Type::start || message.type == Type::join) {
        if (session) {
            sendError(socket, session->isSeated() ? "You are already at the table."
                                                  : "Joining the table: please wait.");
            return;
        }
        queueJoin(socket, message);
        return;
    }
    if (!session || !session->isSeated()) {
        sendError(socket, session ? "Joining the table: please wait." : "Join the table first.");
        return;
    }
    seatMessage(socket, *session, message);
}

void WebGateway::hello(QWebSocket* socket, const std::string& seat) {
    Page& page = pages_[socket];
    page.greeted = true;
    if (!page.seat.empty()) {
        // Asked again: the page is sent what it should show now.
        if (page.seat != seat) {
            sendError(socket, "This page is out of step with the table; please reload it.");
        } else {
            sendTable(socket);
        }
        return;
    }
    page.seat = seat;
    sendWelcome(socket);
    if (auto found = seats_.find(seat); found != seats_.end()) {
        hold(seat, socket);
        WebSession* session = found->second;
        session->pageBack();
        if (session->isSeated()) {
            table_->setWebSeat(session->name(), true);
        }
    }
    sendTable(socket);
}

void WebGateway::hold(const std::string& seat, QWebSocket* socket) {
    // The newest page of a seat wins; the browser's other pages are told and closed.
    std::vector<QWebSocket*> others;
    for (auto& [other, page] : pages_) {
        if (other != socket && page.seat == seat) {
            others.push_back(other);
        }
    }
    holders_[seat] = socket;
    for (QWebSocket* other : others) {
        pages_[other].seat.clear();
        send(other, R"({"type":"replaced"})");
        drop(other, QStringLiteral("Opened again"));
    }
}

void WebGateway::queueJoin(QWebSocket* socket, const BrowserMessage& message) {
    const std::string& seat = pages_[socket].seat;
    if (std::any_of(joins_.begin(), joins_.end(),
                    [&](const Join& join) { return join.seat == seat; })) {
        sendError(socket, "Joining the table: please wait.");
        return;
    }
    Join join;
    join.socket = socket;
    join.seat = seat;
    join.start = message.type == BrowserMessage::Type::start;
    join.name = message.name;
    join.game = message.game;
    if (join.start) {
        if (message.deck == "custom") {
            auto custom = Deck::custom(message.cards);
            if (auto* problem = std::get_if<std::string>(&custom)) {
                sendError(socket, *problem);
                return;
            }
            join.deck = std::get<Deck>(std::move(custom));
        } else if (auto preset = Deck::preset(message.deck.empty() ? "standard" : message.deck)) {
            join.deck = *preset;
        } else {
            sendError(socket, "That deck is unknown.");
            return;
        }
    }
    joins_.push_back(std::move(join));
    nextJoin();
}

std::optional<std::string> WebGateway::refusal(const Join& join) const {
    // Seats of this gateway whose login is answered but not yet on the table count as taken.
    const TableSnapshot table = table_->snapshot();
    std::size_t pending = 0;
    for (const auto& [seat, session] : seats_) {
        const bool seen = std::any_of(table.seats.begin(), table.seats.end(), [&](const auto& s) {
            return sameName(s.name, session->name());
        });
        if (!seen && session->phase() != WebSession::Phase::ended) {
            ++pending;
            if (!join.start && sameName(session->name(), join.name)) {
                return std::string("That name is taken.");
            }
            if (join.start && session->isFacilitator()) {
                return std::string("A game has already been started: join it instead.");
            }
        }
    }
    const TableModel::JoinCheck check =
        join.start ? table_->checkStart() : table_->checkJoin(join.name);
    switch (check) {
        case TableModel::JoinCheck::ok:
            break;
        case TableModel::JoinCheck::noGame:
            return BrowserMessage::refusalText(AnswerMessage::adminNotLoggedIn);
        case TableModel::JoinCheck::gameOpen:
            return BrowserMessage::refusalText(AnswerMessage::adminAlreadyLoggenIn);
        case TableModel::JoinCheck::nameTaken:
            return BrowserMessage::refusalText(AnswerMessage::userNameAlreadyInUse);
        case TableModel::JoinCheck::full:
            return BrowserMessage::refusalText(AnswerMessage::limitExceeded);
    }
    if (!join.start && table.seats.size() + pending >= TableModel::kSeats) {
        return BrowserMessage::refusalText(AnswerMessage::limitExceeded);
    }
    return std::nullopt;
}

void WebGateway::nextJoin() {
    while (joining_ == nullptr && !joins_.empty()) {
        Join join = std::move(joins_.front());
        joins_.pop_front();
        if (pages_.count(join.socket) == 0 || pages_[join.socket].seat != join.seat ||
            seats_.count(join.seat) != 0) {
            continue;  // the page went away, or its browser sat down meanwhile
        }
        if (auto problem = refusal(join)) {
            sendError(join.socket, *problem);
            sendTable(join.socket);
            continue;
        }
        auto* session = new WebSession(join.seat, join.name, join.start, options_.gamePort, this);
        seats_[join.seat] = session;
        hold(join.seat, join.socket);
        joining_ = session;
        WebSession::Callbacks callbacks;
        callbacks.loggedIn = [this, session](const std::optional<std::string>& problem) {
            loggedIn(session, problem);
        };
        callbacks.changed = [this, session] { sendMe(socketOf(session->seat())); };
        callbacks.error = [this, session](const std::string& text) {
            if (QWebSocket* socket = socketOf(session->seat())) {
                sendError(socket, text);
            }
        };
        callbacks.finished = [this, session](const std::string& text) { finished(session, text); };
        session->setCallbacks(std::move(callbacks));
        if (join.start) {
            table_->setDeck(join.deck);
        }
        table_->setWebSeat(join.name, true);
        startDeck_ = join.start ? std::optional<Deck>(join.deck) : std::nullopt;
        session->login(join.game);
        sendTable(join.socket);
    }
}

void WebGateway::loggedIn(WebSession* session, const std::optional<std::string>& problem) {
    if (joining_ == session) {
        joining_ = nullptr;
    }
    QWebSocket* socket = socketOf(session->seat());
    if (problem) {
        seats_.erase(session->seat());
        holders_.erase(session->seat());
        session->setCallbacks({});
        session->deleteLater();
        if (socket) {
            sendError(socket, *problem);
        }
    } else {
        if (session->isFacilitator() && startDeck_) {
            table_->setDeck(*startDeck_);
        }
        table_->setWebSeat(session->name(), socket != nullptr);
        if (!socket) {
            session->pageGone(options_.graceMs);
        }
    }
    startDeck_.reset();
    if (socket) {
        sendTable(socket);
    }
    nextJoin();
}

void WebGateway::finished(WebSession* session, const std::string& text) {
    if (joining_ == session) {
        joining_ = nullptr;
    }
    const std::string seat = session->seat();
    QWebSocket* socket = socketOf(seat);
    seats_.erase(seat);
    holders_.erase(seat);
    session->setCallbacks({});
    session->deleteLater();
    if (socket) {
        if (!text.empty()) {
            send(socket, dump({{"type", "ended"}, {"text", text}}));
        }
        sendTable(socket);
    }
    nextJoin();
}

bool WebGateway::facilitatorIsWeb(const TableSnapshot& table) {
    return std::any_of(table.seats.begin(), table.seats.end(),
                       [](const TableSeat& seat) { return seat.facilitator && seat.web; });
}

bool WebGateway::canRun(const WebSession& session, const TableSnapshot& table) const {
    // A facilitator at a native client can't hand the web table its controls: every web seat
    // has them then.
    return session.isFacilitator() || table.settings.everyoneControls || !facilitatorIsWeb(table);
}

void WebGateway::seatMessage(QWebSocket* socket, WebSession& session,
                             const BrowserMessage& message) {
    using Type = BrowserMessage::Type;
    const TableSnapshot table = table_->snapshot();
    const bool runs = canRun(session, table);
    const auto& current = table.current;
    switch (message.type) {
        case Type::play:
            if (!current) {
                sendError(socket, "There is no item to play on yet.");
            } else if (current->opened) {
                sendError(socket, "The cards are already open.");
            } else if (!table.deck.contains(message.card)) {
                sendError(socket, "That card is not in the deck.");
            } else {
                session.play(message.card);
            }
            return;
        case Type::leave:
            session.leave();
            return;
        case Type::settings:
            if (!session.isFacilitator() && facilitatorIsWeb(table)) {
                sendError(socket, "Only the facilitator changes the table's settings.");
            } else {
                table_->setSettings({message.autoReveal, message.everyoneControls});
            }
            return;
        default:
            break;
    }
    if (!runs) {
        sendError(socket, kNotYours);
        return;
    }
    switch (message.type) {
        case Type::deal:
            session.putUpItem(message.title);
            break;
        case Type::next: {
            std::optional<std::string> title = table_->takeNextAgendaItem();
            if (!title) {
                // A quick round: nobody has to type a title.
                const int number =
                    current ? current->number + 1 : static_cast<int>(table.items.size()) + 1;
                title = "Item " + std::to_string(number);
            }
            session.putUpItem(*title);
            break;
        }
        case Type::revote:
            if (!current) {
                sendError(socket, "There is no item to vote on again.");
            } else {
                session.putUpItem(current->title);
            }
            break;
        case Type::open:
            if (!current) {
                sendError(socket, "There is no item to open.");
            } else if (current->opened) {
                sendError(socket, "The cards are already open.");
            } else {
                openedItem_ = current->number;
                session.openCards();
            }
            break;
        case Type::estimate:
            if (!table.deck.contains(message.card)) {
                sendError(socket, "That card is not in the deck.");
            } else if (!table_->recordEstimate(message.item, message.card)) {
                sendError(socket, "That item's cards are not open.");
            }
            break;
        case Type::agenda: {
            auto titles = AgendaText::parse(message.text, message.csv);
            if (auto* problem = std::get_if<std::string>(&titles)) {
                sendError(socket, *problem);
            } else {
                table_->setAgenda(std::get<std::vector<std::string>>(std::move(titles)));
            }
            break;
        }
        case Type::countdown:
            if (message.seconds == 0) {
                table_->cancelCountdown();
            } else if (!current || current->opened) {
                sendError(socket,
                          "Put up an item first: the countdown runs while cards are played.");
            } else {
                table_->startCountdown(message.seconds);
            }
            break;
        default:
            break;
    }
}

void WebGateway::gone(QWebSocket* socket) {
    auto found = pages_.find(socket);
    if (found == pages_.end()) {
        return;
    }
    const std::string seat = found->second.seat;
    pages_.erase(found);
    socket->deleteLater();
    if (seat.empty()) {
        return;
    }
    auto holder = holders_.find(seat);
    if (holder == holders_.end() || holder->second != socket) {
        return;
    }
    holders_.erase(holder);
    auto session = seats_.find(seat);
    if (session != seats_.end()) {
        session->second->pageGone(options_.graceMs);
        if (session->second->isSeated()) {
            table_->setWebSeat(session->second->name(), false);
        }
    }
}

void WebGateway::tableChanged() {
    snapshot_ = table_->snapshot();
    tableText_ = dump(TableJson::of(snapshot_));
    // Sending may drop a page (and erase it): walk a copy.
    std::vector<QWebSocket*> shown;
    for (const auto& [socket, page] : pages_) {
        if (!page.seat.empty() || page.watcher) {
            shown.push_back(socket);
        }
    }
    for (QWebSocket* socket : shown) {
        sendTable(socket);
    }
    openWhenDue(snapshot_);
    if (snapshot_.countdownEndsAtMs) {
        const qint64 left = *snapshot_.countdownEndsAtMs - QDateTime::currentMSecsSinceEpoch();
        countdown_.start(static_cast<int>(std::clamp<qint64>(left, 0, 24 * 3600 * 1000)));
    } else {
        countdown_.stop();
    }
}

nlohmann::json WebGateway::me(QWebSocket* socket) {
    const Page& page = pages_[socket];
    if (page.watcher) {
        return {{"seat", "watch"}};
    }
    if (const WebSession* session = sessionOf(socket)) {
        return {{"seat", session->isSeated() ? "seated" : "joining"},
                {"name", session->name()},
                {"facilitator", session->isFacilitator()},
                {"controls", canRun(*session, snapshot_)},
                {"pick", session->pick() ? nlohmann::json(*session->pick()) : nlohmann::json()},
                {"played", session->hasPlayed()}};
    }
    const bool queued = std::any_of(joins_.begin(), joins_.end(),
                                    [&](const Join& join) { return join.socket == socket; });
    return {{"seat", queued ? "joining" : "none"}};
}

void WebGateway::sendTable(QWebSocket* socket) {
    if (socket == nullptr || pages_.count(socket) == 0) {
        return;
    }
    // The table's text is made once per change; only the page's own part is made per page.
    send(socket, R"({"type":"table","nowMs":)" +
                     std::to_string(QDateTime::currentMSecsSinceEpoch()) + R"(,"me":)" +
                     dump(me(socket)) + R"(,"table":)" + tableText_ + "}");
}

void WebGateway::sendMe(QWebSocket* socket) {
    if (socket != nullptr && pages_.count(socket) != 0) {
        send(socket, dump({{"type", "me"}, {"me", me(socket)}}));
    }
}

void WebGateway::sendWelcome(QWebSocket* socket) {
    nlohmann::json decks = nlohmann::json::array();
    for (const Deck& deck : Deck::presets()) {
        decks.push_back({{"id", deck.id}, {"name", deck.name}, {"cards", deck.cards}});
    }
    send(socket, dump({{"type", "welcome"},
                       {"decks", std::move(decks)},
                       {"link", options_.joinLink ? options_.joinLink() : std::string()}}));
}

void WebGateway::openWhenDue(const TableSnapshot& table) {
    if (table.settings.autoReveal && !table.seats.empty() &&
        std::all_of(table.seats.begin(), table.seats.end(),
                    [](const TableSeat& seat) { return seat.played; })) {
        openThroughSeat(table);
    }
}

void WebGateway::openThroughSeat(const TableSnapshot& table) {
    if (!table.current || table.current->opened || openedItem_ == table.current->number) {
        return;
    }
    // The facilitator's own seat opens, so native clients see an ordinary open.
    WebSession* through = nullptr;
    for (auto& [seat, session] : seats_) {
        if (session->isSeated() && (!through || session->isFacilitator())) {
            through = session;
        }
    }
    if (through) {
        openedItem_ = table.current->number;
        through->openCards();
    }
}

void WebGateway::countdownEnded() {
    const TableSnapshot table = table_->snapshot();
    if (!table.countdownEndsAtMs) {
        return;
    }
    if (*table.countdownEndsAtMs > QDateTime::currentMSecsSinceEpoch()) {
        tableChanged();  // started again meanwhile
        return;
    }
    table_->cancelCountdown();
    if (table.settings.autoReveal) {
        openThroughSeat(table);
    }
}

void WebGateway::send(QWebSocket* socket, const std::string& text) {
    if (pages_.count(socket) == 0) {
        return;
    }
    socket->sendTextMessage(QString::fromStdString(text));
    // A page that doesn't take its messages is not waited for: past the limit it is dropped,
    // and its seat waits for a page to come back like any other.
    if (socket->bytesToWrite() > options_.sendLimit) {
        drop(socket, QStringLiteral("Too slow"));
    }
}

void WebGateway::sendError(QWebSocket* socket, const std::string& text) {
    send(socket, dump({{"type", "error"}, {"text", text}}));
}

void WebGateway::drop(QWebSocket* socket, const QString& reason) {
    if (pages_.count(socket) == 0) {
        return;
    }
    socket->close(QWebSocketProtocol::CloseCodePolicyViolated, reason);
    // close() waits for the page's answer; a page that reads nothing would never give it.
    socket->abort();
    gone(socket);
}

WebSession* WebGateway::sessionOf(QWebSocket* socket) {
    auto page = pages_.find(socket);
    if (page == pages_.end() || page->second.seat.empty() ||
        socketOf(page->second.seat) != socket) {
        return nullptr;
    }
    auto session = seats_.find(page->second.seat);
    return session != seats_.end() ? session->second : nullptr;
}

QWebSocket* WebGateway::socketOf(const std::string& seat) {
    auto holder = holders_.find(seat);
    return holder != holders_.end() ? holder->second : nullptr;
}

}  // namespace pointlane
