#include "WebGateway.h"

#include <QTimer>
#include <QWebSocket>
#include <algorithm>
#include <nlohmann/json.hpp>

#include "BrowserMessage.h"
#include "WebSession.h"

namespace pointlane {

namespace {

std::string dump(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

WebGateway::WebGateway(Options options, QObject* parent)
    : QObject(parent), options_(std::move(options)) {}

WebGateway::~WebGateway() {
    for (auto& [socket, link] : links_) {
        socket->disconnect(this);
    }
}

void WebGateway::accept(QWebSocket* socket) {
    socket->setParent(this);
    socket->setMaxAllowedIncomingFrameSize(kMaxFrameSize);
    socket->setMaxAllowedIncomingMessageSize(kMaxFrameSize);
    Link link;
    link.tokens = options_.burst;
    link.refilled = std::chrono::steady_clock::now();
    links_[socket] = link;
    connect(socket, &QWebSocket::textMessageReceived, this,
            [this, socket](const QString& text) { received(socket, text); });
    connect(socket, &QWebSocket::binaryMessageReceived, this, [this, socket](const QByteArray&) {
        if (links_.count(socket) != 0 && withinRate(links_[socket])) {
            sendError(socket, "The page sent something that is not a message.");
        }
    });
    connect(socket, &QWebSocket::disconnected, this, [this, socket] { gone(socket); });
    closeUnlessHelloWithin(socket);
}

void WebGateway::closeUnlessHelloWithin(QWebSocket* socket) {
    // An open socket that never says which tab it is would hold a place for nothing.
    QTimer::singleShot(options_.helloTimeoutMs, socket, [this, socket] {
        auto found = links_.find(socket);
        if (found != links_.end() && found->second.tab.empty() && !found->second.greeted) {
            drop(socket, QStringLiteral("No hello"));
        }
    });
}

bool WebGateway::withinRate(Link& link) {
    const auto now = std::chrono::steady_clock::now();
    const double seconds = std::chrono::duration<double>(now - link.refilled).count();
    link.refilled = now;
    link.tokens =
        std::min<double>(options_.burst, link.tokens + seconds * options_.messagesPerSecond);
    if (link.tokens < 1) {
        return false;
    }
    link.tokens -= 1;
    return true;
}

void WebGateway::received(QWebSocket* socket, const QString& text) {
    auto found = links_.find(socket);
    if (found == links_.end()) {
        return;
    }
    if (!withinRate(found->second)) {
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
    if (message.type == BrowserMessage::Type::hello) {
        hello(socket, message.tab);
        return;
    }
    WebSession* session = sessionOf(socket);
    if (!session) {
        sendError(socket, "This page is out of step with the table; please reload it.");
        return;
    }
    switch (message.type) {
        case BrowserMessage::Type::start:
            session->login(true, message.name, message.game);
            break;
        case BrowserMessage::Type::join:
            session->login(false, message.name, {});
            break;
        case BrowserMessage::Type::deal:
            session->putUpItem(message.title);
            break;
        case BrowserMessage::Type::play:
            session->play(message.card);
            break;
        case BrowserMessage::Type::open:
            session->openCards();
            break;
        case BrowserMessage::Type::leave:
            session->leave();
            break;
        case BrowserMessage::Type::hello:
            break;
    }
}

void WebGateway::hello(QWebSocket* socket, const std::string& tab) {
    Link& link = links_[socket];
    link.greeted = true;
    if (!link.tab.empty()) {
        // Asked again (after a refused login): the page is sent what it should show now.
        if (link.tab != tab) {
            sendError(socket, "This page is out of step with the table; please reload it.");
        } else if (WebSession* session = sessionOf(socket);
                   session && session->phase() != WebSession::Phase::seated) {
            sendLobby(socket);
        }
        return;
    }
    auto found = sessions_.find(tab);
    WebSession* session = found != sessions_.end() ? found->second : nullptr;
    if (!session) {
        if (static_cast<int>(sessions_.size()) >= options_.maxSessions) {
            sendError(socket, "Too many pages are open on the table; try again later.");
            drop(socket, QStringLiteral("Too many pages"));
            return;
        }
        session = new WebSession(tab, options_.gamePort, this);
        sessions_[tab] = session;
        session->setOnFinished([this, tab, session] {
            // Any later message of its page finds no session; the page was told why.
            sessions_.erase(tab);
            for (auto& [other, otherLink] : links_) {
                if (otherLink.tab == tab) {
                    otherLink.tab.clear();
                }
            }
            session->setSink({});
            session->deleteLater();
        });
    } else if (QWebSocket* previous = socketOf(tab)) {
        // The same tab came back while its old page was still connected: the newest page wins.
        links_[previous].tab.clear();
        drop(previous, QStringLiteral("Opened again"));
    }
    link.tab = tab;
    session->setSink([this, socket](const std::string& text) { send(socket, text); });
    session->resume();
    if (session->phase() != WebSession::Phase::seated) {
        sendLobby(socket);
    }
}

void WebGateway::sendLobby(QWebSocket* socket) {
    std::optional<std::string> game;
    bool open = false;
    if (options_.currentGame) {
        game = options_.currentGame();
        open = game.has_value();
    } else {
        for (const auto& [tab, session] : sessions_) {
            if (session->phase() == WebSession::Phase::seated) {
                open = true;
                game = session->gameName();
            }
        }
    }
    send(socket, dump({{"type", "lobby"},
                       {"open", open},
                       {"game", game ? nlohmann::json(*game) : nlohmann::json()}}));
}

void WebGateway::gone(QWebSocket* socket) {
    auto found = links_.find(socket);
    if (found == links_.end()) {
        return;
    }
    const std::string tab = found->second.tab;
    links_.erase(found);
    socket->deleteLater();
    if (tab.empty()) {
        return;
    }
    auto session = sessions_.find(tab);
    if (session != sessions_.end()) {
        session->second->setSink({});
        session->second->startGrace(
            session->second->phase() == WebSession::Phase::lobby ? 0 : options_.graceMs);
    }
}

void WebGateway::send(QWebSocket* socket, const std::string& text) {
    if (links_.count(socket) == 0) {
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
    if (links_.count(socket) == 0) {
        return;
    }
    socket->close(QWebSocketProtocol::CloseCodePolicyViolated, reason);
    // close() waits for the page's answer; a page that reads nothing would never give it.
    socket->abort();
    gone(socket);
}

WebSession* WebGateway::sessionOf(QWebSocket* socket) {
    auto link = links_.find(socket);
    if (link == links_.end() || link->second.tab.empty()) {
        return nullptr;
    }
    auto session = sessions_.find(link->second.tab);
    return session != sessions_.end() ? session->second : nullptr;
}

QWebSocket* WebGateway::socketOf(const std::string& tab) {
    for (auto& [socket, link] : links_) {
        if (link.tab == tab) {
            return socket;
        }
    }
    return nullptr;
}

}  // namespace pointlane
