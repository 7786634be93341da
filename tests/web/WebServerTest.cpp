#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTcpSocket>

#include "WebFixture.h"

namespace pointlane::testkit {
namespace {

struct Response {
    int status = 0;
    QByteArray type;
    QByteArray disposition;
    QByteArray body;
};

class WebServerTest : public WebFixture {
  protected:
    void adjust(WebServer::Options& options) override {
        options.history.json =
            [this](std::optional<std::int64_t> game) -> std::optional<std::string> {
            asked.push_back(game.value_or(0));
            if (game == 404) {
                return std::nullopt;
            }
            return R"({"games":[]})";
        };
        options.history.csv = [](std::optional<std::int64_t>) {
            return std::optional<std::string>("id,name\n");
        };
    }
    // A request sent as is (the path is not normalised on the way).
    Response get(const QByteArray& path, const QByteArray& verb = "GET") {
        QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port)));
        request.setUrl(QUrl::fromEncoded("http://127.0.0.1:" + QByteArray::number(port) + path,
                                         QUrl::StrictMode));
        QNetworkReply* reply = manager.sendCustomRequest(request, verb);
        EXPECT_TRUE(spinUntil([&] { return reply->isFinished(); }));
        Response response;
        response.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        response.type = reply->rawHeader("Content-Type");
        response.disposition = reply->rawHeader("Content-Disposition");
        response.body = reply->readAll();
        reply->deleteLater();
        return response;
    }

    // The status line of a request written byte for byte (no client normalises its path).
    QByteArray rawStatus(const QByteArray& path) {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(port));
        EXPECT_TRUE(spinUntil([&] { return socket.state() == QAbstractSocket::ConnectedState; }));
        socket.write("GET " + path + " HTTP/1.1\r\nHost: x\r\n\r\n");
        QByteArray answer;
        spinUntil([&] {
            answer += socket.readAll();
            return answer.contains("\r\n");
        });
        return answer.left(answer.indexOf("\r\n"));
    }

    QNetworkAccessManager manager;
    std::vector<std::int64_t> asked;
};

TEST_F(WebServerTest, ServesThePageFromTheResourcesOnlyAndTheHistoryWhenThereIsOne) {
    const Response page = get("/");
    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(page.type, "text/html; charset=utf-8");
    EXPECT_TRUE(page.body.contains("table.js"));
    const Response script = get("/table.js");
    EXPECT_EQ(script.type, "text/javascript; charset=utf-8");
    EXPECT_TRUE(script.body.contains("WebSocket"));
    EXPECT_EQ(get("/render.js").status, 200);
    EXPECT_EQ(get("/watch").type, "text/html; charset=utf-8");
    EXPECT_EQ(get("/pointlane.css").type, "text/css; charset=utf-8");

    for (const QByteArray path : {"/missing.js", "/web.qrc", "/.hidden.js", "/a/b.js", "/socket"}) {
        EXPECT_EQ(get(path).status, 404) << path.constData();
    }
    for (const QByteArray path : {"/../web/index.html", "/%2e%2e/web/table.js", "/..%2Ftable.js",
                                  "/web/table.js", "//table.js", "/table.js%00.css"}) {
        EXPECT_EQ(rawStatus(path), "HTTP/1.1 404 Not Found") << path.constData();
    }
    EXPECT_EQ(get("/", "POST").status, 405);
    // The history page and its script come from the same resources.
    const Response history = get("/history");
    EXPECT_EQ(history.status, 200);
    EXPECT_TRUE(history.body.contains("history.js"));
    EXPECT_EQ(get("/history.js").type, "text/javascript; charset=utf-8");

    const Response all = get("/history.json");
    EXPECT_EQ(all.status, 200);
    EXPECT_EQ(all.type, "application/json");
    EXPECT_TRUE(all.disposition.startsWith("attachment"));
    EXPECT_EQ(all.body, R"({"games":[]})");
    EXPECT_EQ(get("/history.json?game=7").status, 200);
    EXPECT_EQ(get("/history.json?game=404").status, 404);
    for (const QByteArray query : {"0", "-3", "x", "7x", "", "99999999999999999999"}) {
        EXPECT_EQ(get("/history.csv?game=" + query).status, 400) << query.constData();
    }
    EXPECT_EQ(asked, (std::vector<std::int64_t>{0, 7, 404}));
    const Response csv = get("/history.csv?game=2");
    EXPECT_EQ(csv.type, "text/csv; charset=utf-8");
    EXPECT_EQ(csv.body, "id,name\n");
}

TEST_F(WebFixture, HistoryIsNotFoundWithoutASource) {
    QNetworkAccessManager manager;
    QNetworkReply* reply = manager.get(
        QNetworkRequest(QUrl(QStringLiteral("http://127.0.0.1:%1/history.csv").arg(port))));
    ASSERT_TRUE(spinUntil([&] { return reply->isFinished(); }));
    EXPECT_EQ(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 404);
    reply->deleteLater();
}

}  // namespace
}  // namespace pointlane::testkit
