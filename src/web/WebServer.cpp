#include "WebServer.h"

#include <QFile>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QUrlQuery>
#include <QWebSocket>
#include <charconv>

// The page's files are compiled into this static library; naming the initializer keeps the
// linker from leaving them out.
static void initWebResources() {
    Q_INIT_RESOURCE(web);
}

namespace pointlane {

namespace {

using Status = QHttpServerResponder::StatusCode;

constexpr int kSendBufferSize = 64 * 1024;

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

}  // namespace

void WebServer::reply(const QHttpServerRequest& request, QTcpSocket* socket, const QByteArray& body,
                      QHttpServerResponder::StatusCode status, const QByteArray& type) {
    auto responder = makeResponder(request, socket);
    responder.write(body, {{"Content-Type", type}, {"Cache-Control", "no-cache"}}, status);
}

WebServer::WebServer(Options options, QObject* parent)
    : QAbstractHttpServer(parent), options_(std::move(options)), gateway_(nullptr) {
    if (options_.table) {
        options_.gateway.table = options_.table;
    }
    gateway_ = new WebGateway(options_.gateway, this);
    initWebResources();
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
    port_ = listen(options_.address, static_cast<quint16>(options_.port));
    return port_;
}

QString WebServer::joinLink(const QString& host, int port) {
    return QStringLiteral("http://%1:%2/").arg(host).arg(port);
}

bool WebServer::handleRequest(const QHttpServerRequest& request, QTcpSocket* socket) {
    // Qt 6.4 turns an upgrade into a WebSocket only when the request is taken here and nothing
    // is written back; anywhere but /socket it is refused.
    if (request.value("upgrade").compare("websocket", Qt::CaseInsensitive) == 0) {
        if (request.url().path() != QLatin1String("/socket")) {
            return false;
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

void WebServer::missingHandler(const QHttpServerRequest& request, QTcpSocket* socket) {
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
    const auto& source = csv ? options_.history.csv : options_.history.json;
    std::optional<std::string> body;
    if (source) {
        body = source(gameId);
    }
    if (!body) {
        reply(request, socket, "No history here.\n", Status::NotFound);
        return;
    }
    const QByteArray name = csv ? "pointlane-history.csv" : "pointlane-history.json";
    auto responder = makeResponder(request, socket);
    responder.write(QByteArray::fromStdString(*body),
                    {{"Content-Type", csv ? "text/csv; charset=utf-8" : "application/json"},
                     {"Content-Disposition", "attachment; filename=\"" + name + "\""},
                     {"Cache-Control", "no-cache"}},
                    Status::Ok);
}

}  // namespace pointlane
