#include "WebServer.h"

#include <QFile>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QPointer>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QUrl>
#include <QUrlQuery>
#include <QWebSocket>
#include <charconv>

#include "HistoryBodies.h"
#include "JoinCode.h"

// The page's files are compiled into this static library; naming the initializer keeps the
// linker from leaving them out.
static void initWebResources() {
    Q_INIT_RESOURCE(web);
}

namespace pointlane {

namespace {

using Status = QHttpServerResponder::StatusCode;

constexpr int kSendBufferSize = 64 * 1024;
// Marks a socket whose request was answered by a refusal before Qt's missing handler runs.
constexpr const char* kAnswered = "pointlane.answered";

QByteArray contentType(const QString& name) {
    if (name.endsWith(QLatin1String(".html"))) {
        return "text/html; charset=utf-8";
    }
    if (name.endsWith(QLatin1String(".js"))) {
        return "text/javascript; charset=utf-8";
    }
    if (name.endsWith(QLatin1String(".css"))) {
        return "text/css; charset=utf-8";
    }
    if (name.endsWith(QLatin1String(".svg"))) {
        return "image/svg+xml";
    }
    if (name.endsWith(QLatin1String(".png"))) {
        return "image/png";
    }
    return "application/octet-stream";
}

// A Host header as it may be put into a link: a name or IPv4 address, or a bracketed IPv6
// address, with an optional port.
bool isPlainHost(const QByteArray& host) {
    static const QRegularExpression plain(QStringLiteral(
        "^([A-Za-z0-9]([A-Za-z0-9.-]{0,252})|\\[[0-9A-Fa-f:.]{2,45}\\])(:[0-9]{1,5})?$"));
    return plain.match(QString::fromLatin1(host)).hasMatch();
}

bool isLoopbackHost(const QString& host) {
    const QHostAddress address(host.startsWith(QLatin1Char('[')) ? host.mid(1, host.size() - 2)
                                                                 : host);
    return host.compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0 ||
           address.isLoopback();
}

// The Origin names the host and port the request was sent to (its Host header); a missing
// Origin is not a browser's page and passes.
bool sameOrigin(const QHttpServerRequest& request) {
    const QByteArray origin = request.value("origin");
    if (origin.isEmpty()) {
        return true;
    }
    const QUrl from(QString::fromLatin1(origin), QUrl::StrictMode);
    const QByteArray hostHeader = request.value("host");
    if (!from.isValid() || from.host().isEmpty() || !isPlainHost(hostHeader) ||
        (from.scheme() != QLatin1String("http") && from.scheme() != QLatin1String("https"))) {
        return false;
    }
    const QUrl to(QStringLiteral("http://") + QString::fromLatin1(hostHeader));
    const int defaultPort = from.scheme() == QLatin1String("https") ? 443 : 80;
    return to.isValid() && from.host().compare(to.host(), Qt::CaseInsensitive) == 0 &&
           from.port(defaultPort) == to.port(defaultPort) && from.path().isEmpty();
}

bool matchesTag(const QByteArray& ifNoneMatch, const QByteArray& tag) {
    for (QByteArray candidate : ifNoneMatch.split(',')) {
        candidate = candidate.trimmed();
        if (candidate.startsWith("W/")) {
            candidate = candidate.mid(2);
        }
        if (candidate == tag || candidate == "*") {
            return true;
        }
    }
    return false;
}

// An answer written on the socket directly: the history's answers go out after the request's
// own handling has returned.
void writeAnswer(QTcpSocket* socket, const QByteArray& status, const QByteArray& headers,
                 const QByteArray& body, bool head) {
    socket->write("HTTP/1.1 " + status + "\r\n" + headers + "Content-Length: " +
                  QByteArray::number(body.size()) + "\r\nCache-Control: no-cache\r\n\r\n");
    if (!head) {
        socket->write(body);
    }
}

}  // namespace

void WebServer::reply(const QHttpServerRequest& request, QTcpSocket* socket, const QByteArray& body,
                      QHttpServerResponder::StatusCode status, const QByteArray& type) {
    auto responder = makeResponder(request, socket);
    responder.write(body, {{"Content-Type", type}, {"Cache-Control", "no-cache"}}, status);
}

WebServer::WebServer(Options options, QObject* parent)
    : QAbstractHttpServer(parent),
      options_(std::move(options)),
      gateway_(nullptr),
      history_(new HistoryBodies(options_.history, this)) {
    if (options_.table) {
        options_.gateway.table = options_.table;
    }
    gateway_ = new WebGateway(options_.gateway, this);
    initWebResources();
    options_.limits.sendLimit = options_.gateway.sendLimit;
    connect(this, &QAbstractHttpServer::newWebSocketConnection, this, [this] {
        while (hasPendingWebSocketConnections()) {
            if (auto socket = nextPendingWebSocketConnection()) {
                gateway_->accept(socket.release());
            }
        }
    });
}

WebServer::~WebServer() = default;

int WebServer::start() {
    auto listener = std::make_unique<WebListener>(options_.limits);
    if (!listener->start(options_.address, static_cast<quint16>(options_.port))) {
        return 0;
    }
    listener_ = listener.release();
    bind(listener_);
    port_ = listener_->serverPort();
    return port_;
}

QString WebServer::joinLink(const QString& host, int port) {
    return QStringLiteral("http://%1:%2/").arg(host).arg(port);
}

bool WebServer::handleRequest(const QHttpServerRequest& request, QTcpSocket* socket) {
    if (listener_) {
        listener_->requestTaken(socket);
    }
    // Qt 6.4 turns an upgrade into a WebSocket only when the request is taken here and nothing
    // is written back; anywhere but /socket it is refused.
    if (request.value("upgrade").compare("websocket", Qt::CaseInsensitive) == 0) {
        if (request.url().path() != QLatin1String("/socket")) {
            return false;
        }
        // Another site's page in a player's browser must not reach the table.
        if (!sameOrigin(request)) {
            refuseUpgrade(request, socket, "Only the table's own pages may connect.\n",
                          Status::Forbidden);
            return false;
        }
        if (listener_ && !listener_->mayOpenPage(socket)) {
            refuseUpgrade(request, socket, "Too many pages are open from this address.\n",
                          Status::TooManyRequests);
            return false;
        }
        if (listener_) {
            listener_->becamePage(socket);
        }
        // A fixed kernel buffer keeps what a page has not read visible to the gateway's send
        // limit, instead of growing with the system's buffer tuning.
        socket->setSocketOption(QAbstractSocket::SendBufferSizeSocketOption, kSendBufferSize);
        // A table is one small message per change: send it at once, not after the page's
        // acknowledgement of the one before.
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        return true;
    }
    if (request.method() != QHttpServerRequest::Method::Get &&
        request.method() != QHttpServerRequest::Method::Head) {
        reply(request, socket, "Only GET is served here.\n", Status::MethodNotAllowed);
        return true;
    }
    const QString path = request.url().path();
    if (path == QLatin1String("/") || path == QLatin1String("/index.html")) {
        serveResource(request, socket, QStringLiteral("index.html"));
    } else if (path == QLatin1String("/history.json")) {
        serveHistory(request, socket, false);
    } else if (path == QLatin1String("/history.csv")) {
        serveHistory(request, socket, true);
    } else if (path == QLatin1String("/watch")) {
        serveResource(request, socket, QStringLiteral("watch.html"));
    } else if (path == QLatin1String("/history")) {
        serveResource(request, socket, QStringLiteral("history.html"));
    } else if (path == QLatin1String("/join.svg")) {
        serveJoinCode(request, socket);
    } else {
        // Plain file names only: no folders, no dots in front, so nothing outside ":/web/".
        static const QRegularExpression plainName(
            QStringLiteral("^/([A-Za-z0-9_-]+\\.(html|js|css|svg|png))$"));
        const auto match = plainName.match(path);
        if (!match.hasMatch()) {
            reply(request, socket, "Not found.\n", Status::NotFound);
        } else {
            serveResource(request, socket, match.captured(1));
        }
    }
    return true;
}

void WebServer::refuseUpgrade(const QHttpServerRequest& request, QTcpSocket* socket,
                              const QByteArray& body, QHttpServerResponder::StatusCode status) {
    reply(request, socket, body, status);
    socket->setProperty(kAnswered, true);
}

void WebServer::missingHandler(const QHttpServerRequest& request, QTcpSocket* socket) {
    if (socket->property(kAnswered).toBool()) {
        socket->setProperty(kAnswered, QVariant());
        return;
    }
    reply(request, socket, "Not found.\n", Status::NotFound);
}

void WebServer::serveResource(const QHttpServerRequest& request, QTcpSocket* socket,
                              const QString& name) {
    QFile file(QStringLiteral(":/web/") + name);
    if (!file.open(QIODevice::ReadOnly)) {
        reply(request, socket, "Not found.\n", Status::NotFound);
        return;
    }
    reply(request, socket, file.readAll(), Status::Ok, contentType(name));
}

QString WebServer::joinLinkFor(const QHttpServerRequest& request) const {
    const QByteArray host = request.value("host");
    const QString better = options_.joinLink ? options_.joinLink() : QString();
    if (isPlainHost(host)) {
        const QUrl reached(QStringLiteral("http://") + QString::fromLatin1(host));
        // A phone can't reach the server's loopback address.
        if (better.isEmpty() || !isLoopbackHost(reached.host())) {
            return QStringLiteral("http://") + QString::fromLatin1(host).toLower() +
                   QStringLiteral("/");
        }
    }
    return better.isEmpty() ? joinLink(QStringLiteral("127.0.0.1"), port_) : better;
}

void WebServer::serveJoinCode(const QHttpServerRequest& request, QTcpSocket* socket) {
    const auto code = JoinCode::of(joinLinkFor(request).toStdString());
    if (!code) {
        reply(request, socket, "No join code here.\n", Status::NotFound);
        return;
    }
    reply(request, socket, QByteArray::fromStdString(code->svg()), Status::Ok, "image/svg+xml");
}

void WebServer::serveHistory(const QHttpServerRequest& request, QTcpSocket* socket, bool csv) {
    std::optional<std::int64_t> gameId;
    const QUrlQuery query = request.query();
    if (query.hasQueryItem(QStringLiteral("game"))) {
        const std::string text = query.queryItemValue(QStringLiteral("game")).toStdString();
        std::int64_t value = 0;
        const char* end = text.data() + text.size();
        auto [next, error] = std::from_chars(text.data(), end, value);
        if (text.empty() || error != std::errc() || next != end || value <= 0) {
            reply(request, socket, "The game id must be a positive whole number.\n",
                  Status::BadRequest);
            return;
        }
        gameId = value;
    }
    const auto format = csv ? HistoryBodies::Format::csv : HistoryBodies::Format::json;
    if (!history_->has(format)) {
        reply(request, socket, "No history here.\n", Status::NotFound);
        return;
    }
    const bool head = request.method() == QHttpServerRequest::Method::Head;
    const QByteArray tag = history_->etag();
    if (!tag.isEmpty() && matchesTag(request.value("if-none-match"), tag)) {
        socket->write("HTTP/1.1 304 Not Modified\r\nETag: " + tag +
                      "\r\nCache-Control: no-cache\r\n\r\n");
        return;
    }
    const bool close = request.value("connection").compare("close", Qt::CaseInsensitive) == 0;
    const QByteArray name = csv ? "pointlane-history.csv" : "pointlane-history.json";
    const QByteArray type = csv ? "text/csv; charset=utf-8" : "application/json";
    QPointer<QTcpSocket> target(socket);
    if (listener_) {
        listener_->setAnswering(socket, true);
    }
    const bool queued = history_->body(
        gameId, format, [this, target, head, close, name, type](const HistoryBodies::Body& body) {
            if (!target || target->state() != QAbstractSocket::ConnectedState) {
                return;
            }
            if (listener_) {
                listener_->setAnswering(target, false);
            }
            if (!body.text) {
                writeAnswer(target, "404 Not Found", "Content-Type: text/plain; charset=utf-8\r\n",
                            "No history here.\n", head);
            } else {
                const QByteArray etag =
                    body.etag.isEmpty() ? QByteArray() : "ETag: " + body.etag + "\r\n";
                writeAnswer(target, "200 OK",
                            "Content-Type: " + type +
                                "\r\nContent-Disposition: attachment; filename=\"" + name +
                                "\"\r\n" + etag,
                            QByteArray::fromStdString(*body.text), head);
            }
            if (close) {
                target->disconnectFromHost();
            }
        });
    if (!queued) {
        if (listener_) {
            listener_->setAnswering(socket, false);
        }
        writeAnswer(socket, "503 Service Unavailable",
                    "Content-Type: text/plain; charset=utf-8\r\nRetry-After: 1\r\n",
                    "The history is busy; try again in a moment.\n", head);
    }
}

}  // namespace pointlane
