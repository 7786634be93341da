#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "WebFixture.h"
#include "transport/SocketFunctions.h"

namespace pointlane::testkit {
namespace {

using nlohmann::json;

TEST_F(WebFixture, JoinRefusalsComeInTheServersOrderAndShareTheFiveLogins) {
    Page& early = lobbyPage("early");
    EXPECT_FALSE(early.received.back()["open"]);
    early.send({{"type", "join"}, {"name", "Bob"}});
    EXPECT_EQ(early.waitForError(), "No game has been started yet: start one instead.");

    Page& ann = seated("Ann", "Sprint 12");
    EXPECT_TRUE(ann.received.back()["admin"]);
    EXPECT_EQ(ann.received.back()["game"], "Sprint 12");

    // A refused page asks again and is shown the open game.
    early.hello();
    const json lobby = early.waitForType("lobby");
    EXPECT_TRUE(lobby["open"]);
    EXPECT_EQ(lobby["game"], "Sprint 12");
    early.send({{"type", "join"}, {"name", "ANN"}});
    EXPECT_EQ(early.waitForError(), "That name is taken.");
    Page& other = lobbyPage("other");
    other.send({{"type", "start"}, {"name", "Cid"}, {"game", "Mine"}});
    EXPECT_EQ(other.waitForError(), "A game has already been started: join it instead.");

    // Ann, the three refusals and one native player: five logins.
    TestPlayer native = connectPlayer(*server);
    ASSERT_EQ(native.client->loginPlayer("Nat", native.clientServer->port())->code, 0);
    ann.waitForTable([](const json& table) { return hasPlayer(table, "Nat"); });
    early.send({{"type", "join"}, {"name", "Bob"}});
    EXPECT_EQ(early.waitForError(), "Five players are already at the table.");
    TestPlayer late = connectPlayer(*server);
    EXPECT_EQ(late.client->loginPlayer("Lee", late.clientServer->port())->message,
              AnswerMessage::limitExceeded);

    // A native logout frees a count, which a page takes.
    ASSERT_EQ(native.client->logout()->code, 0);
    ann.waitForTable([](const json& table) { return !hasPlayer(table, "Nat"); });
    early.send({{"type", "join"}, {"name", "Bob"}});
    const json bob = early.waitForTable([](const json&) { return true; });
    EXPECT_EQ(bob["you"], "Bob");
    EXPECT_FALSE(bob["admin"]);
    EXPECT_TRUE(hasPlayer(bob, "Ann") && hasPlayer(bob, "Bob") && !hasPlayer(bob, "Nat"));
}

TEST_F(WebFixture, PagesFollowAllSixNotificationsAndElectTheirOwnPicks) {
    Page& ann = seated("Ann", "Sprint");
    TestPlayer native = connectPlayer(*server);
    ASSERT_EQ(native.client->loginPlayer("Nat", native.clientServer->port())->code, 0);
    Page& bob = seated("Bob");
    // Nat's arrival is pushed after Nat's answer, so it may reach the pages after Bob's.
    const json everyone = ann.waitForTable(
        [](const json& table) { return hasPlayer(table, "Bob") && hasPlayer(table, "Nat"); });
    EXPECT_TRUE(hasPlayer(everyone, "Ann"));

    ASSERT_EQ(native.client->initNewDeal("Login page")->code, 0);
    for (Page* p : {&ann, &bob}) {
        const json t =
            p->waitForTable([](const json& table) { return table["item"] == "Login page"; });
        EXPECT_EQ(t["played"], 0);
        EXPECT_FALSE(t["opened"]);
    }
    ann.send({{"type", "play"}, {"card", "5"}});
    bob.waitForTable([](const json& table) { return table["played"] == 1; });
    // Changing the pick before the cards open is no second play.
    ann.send({{"type", "play"}, {"card", "1/2"}});
    ann.waitForTable([](const json& table) { return table["pick"] == "1/2"; });
    bob.send({{"type", "play"}, {"card", "coffee"}});
    ASSERT_EQ(native.client->play()->code, 0);
    ann.waitForTable([](const json& table) { return table["played"] == 3; });
    EXPECT_TRUE(native.clientServer->waitFor([](const std::vector<Request>& got) {
        return std::count_if(got.begin(), got.end(),
                             [](const Request& r) { return r.request == RequestCode::play; }) == 3;
    }));

    ASSERT_EQ(native.client->openCards()->code, 0);
    ASSERT_EQ(native.client->cardElected("Nat", "13")->code, 0);
    for (Page* p : {&ann, &bob}) {
        const json t =
            p->waitForTable([](const json& table) { return table["cards"].size() == 3; });
        EXPECT_TRUE(t["opened"]);
        std::map<std::string, std::string> cards;
        for (const auto& c : t["cards"]) {
            cards[c["name"]] = c["card"];
        }
        EXPECT_EQ(cards, (std::map<std::string, std::string>{
                             {"Ann", "1/2"}, {"Bob", "coffee"}, {"Nat", "13"}}));
    }
    EXPECT_TRUE(native.clientServer->waitFor([](const std::vector<Request>& got) {
        return std::any_of(got.begin(), got.end(), [](const Request& r) {
            return r.request == RequestCode::cardElected && r.data &&
                   std::string(r.data->begin(), r.data->end()).find("\"Ann\"") != std::string::npos;
        });
    }));
    ann.send({{"type", "play"}, {"card", "8"}});
    EXPECT_EQ(ann.waitForError(), "The cards are already open.");

    ASSERT_EQ(native.client->logout()->code, 0);
    bob.waitForTable(
        [](const json& table) { return !hasPlayer(table, "Nat") && hasPlayer(table, "Ann"); });

    // The administrator's page ends the game; every page says so.
    ann.send({{"type", "leave"}});
    EXPECT_EQ(ann.waitForType("ended")["text"], "You ended the game. The server is closing.");
    EXPECT_EQ(bob.waitForType("ended")["text"],
              "The game has ended: the administrator closed the table.");
    EXPECT_TRUE(spinUntil([&] { return web->gateway().sessionCount() == 0; }));
}

TEST_F(WebFixture, AReturningTabTakesItsSeatBackWithinTheGraceAndLosesItAfter) {
    Page& ann = seated("Ann", "Sprint");
    Page& bob = seated("Bob");
    bob.send({{"type", "deal"}, {"title", "  Search box  "}});
    ann.waitForTable([](const json& table) {
        return table["item"] == "  Search box  " || table["item"] == "Search box";
    });
    bob.send({{"type", "play"}, {"card", "3"}});
    ann.waitForTable([](const json& table) { return table["played"] == 1; });
    bob.close();

    // A reload: the same tab within the grace gets the seat and the table as it is. The play
    // notification for Bob's own seat may still be on its way when the page comes back, so the
    // count may reach the new page in a second table message.
    Page& again = page("Bob");
    again.hello();
    const json t = again.waitForTable([](const json& table) { return table["played"] == 1; });
    EXPECT_EQ(t["you"], "Bob");
    EXPECT_EQ(t["pick"], "3");
    EXPECT_EQ(InProcessServer::loginCount(), 2);

    // The same tab opened again while its page is still there: the newer page wins.
    Page& third = page("Bob");
    third.hello();
    third.waitForTable([](const json& table) { return table["you"] == "Bob"; });
    EXPECT_TRUE(spinUntil([&] { return again.closed; }));

    // Gone for longer than the grace: the seat logs out and the others see it go.
    third.close();
    ann.waitForTable([](const json& table) { return !hasPlayer(table, "Bob"); });
    EXPECT_EQ(InProcessServer::loginCount(), 1);
    Page& later = page("Bob");
    later.hello();
    EXPECT_EQ(later.waitForType("lobby")["open"], true);
}

TEST_F(WebFixture, MalformedMessagesGetASentenceAndNeverReachTheGame) {
    Page& p = page("p");
    p.send({{"type", "join"}, {"name", "Early"}});
    EXPECT_EQ(p.waitForError(), "This page is out of step with the table; please reload it.");
    p.send({{"type", "hello"}, {"tab", "../../etc"}});
    EXPECT_EQ(p.waitForError(), "The page did not say which tab it is.");
    p.hello();
    p.waitForType("lobby");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"not json", "The page sent something that is not a message."},
        {"[1,2]", "The page sent something that is not a message."},
        {R"({"name":"x"})", "The page sent a message without a type."},
        {R"({"type":"shutdown"})", "The page sent a message of an unknown type."},
        {R"({"type":"start","name":"Ann"})", "The game name is missing."},
        {R"({"type":"start","name":"   ","game":"G"})", "Please enter a name."},
        {R"({"type":"join","name":42})", "The name is missing."},
        {R"({"type":"join","name":"a\u0007b"})", "The name can't contain control characters."},
        {R"({"type":"play","card":"7"})", "That card is not in the deck."},
        {R"({"type":"deal","title":"Item"})", "Join the table first."},
        {json({{"type", "join"}, {"name", std::string(201, 'x')}}).dump(),
         "The name is too long: at most 200 characters."},
    };
    for (const auto& [text, error] : cases) {
        p.sendText(text);
        EXPECT_EQ(p.waitForError(), error) << text;
    }
    p.socket().sendBinaryMessage("binary");
    EXPECT_EQ(p.waitForError(), "The page sent something that is not a message.");
    EXPECT_EQ(InProcessServer::loginCount(), 0);

    // Two hundred characters (not bytes) are fine.
    std::string name;
    for (int i = 0; i < 200; ++i) {
        name += "\xC3\xA9";
    }
    p.send({{"type", "start"}, {"name", name}, {"game", "G"}});
    EXPECT_EQ(p.waitForTable([](const json&) { return true; })["you"], name);

    // Oversized frames close that page only; a flooding page too.
    Page& big = lobbyPage("big");
    big.sendText(std::string(70 * 1024, 'x'));
    EXPECT_TRUE(spinUntil([&] { return big.closed; }));
    EXPECT_EQ(big.closeCode, QWebSocketProtocol::CloseCodeTooMuchData);
    Page& flood = lobbyPage("flood");
    for (int i = 0; i < 500 && !flood.closed; ++i) {
        flood.send({{"type", "open"}});
    }
    EXPECT_TRUE(spinUntil([&] { return flood.closed; }));
    EXPECT_EQ(flood.closeCode, QWebSocketProtocol::CloseCodePolicyViolated);
    p.send({{"type", "deal"}, {"title", "Still here"}});
    EXPECT_EQ(
        p.waitForTable([](const json& table) { return table["item"] == "Still here"; })["item"],
        "Still here");
}

// A page that reads nothing: a raw WebSocket client with a tiny receive window.
class RawPage {
  public:
    explicit RawPage(int port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        const int small = 2048;
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        EXPECT_EQ(connect_socket(fd_, "127.0.0.1", port), 0);
        const std::string handshake =
            "GET /socket HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\n"
            "Connection: Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
            "Sec-WebSocket-Version: 13\r\n\r\n";
        EXPECT_EQ(::write(fd_, handshake.data(), handshake.size()),
                  static_cast<ssize_t>(handshake.size()));
        // Frames go only after the upgrade answer (read without blocking the event loop).
        std::string answer;
        EXPECT_TRUE(spinUntil([&] {
            char buffer[512];
            const ssize_t got = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
            if (got > 0) {
                answer.append(buffer, static_cast<std::size_t>(got));
            }
            return answer.find("\r\n\r\n") != std::string::npos;
        }));
        EXPECT_EQ(answer.rfind("HTTP/1.1 101", 0), 0u) << answer;
    }
    ~RawPage() { ::close(fd_); }
    // One masked text frame (mask of zeros keeps the bytes as they are).
    void send(const std::string& text) {
        std::string frame = "\x81";
        frame += static_cast<char>(0x80 | text.size());
        frame += std::string(4, '\0');
        frame += text;
        EXPECT_EQ(::write(fd_, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
    }

  private:
    int fd_ = -1;
};

class SlowPageTest : public WebFixture {
    void adjust(WebServer::Options& options) override { options.gateway.sendLimit = 16 * 1024; }
};

TEST_F(SlowPageTest, APageThatStopsReadingIsDroppedAndItsSeatLogsOutWhileOthersGoOn) {
    Page& ann = seated("Ann", "Sprint");
    TestPlayer native = connectPlayer(*server);
    ASSERT_EQ(native.client->loginPlayer("Nat", native.clientServer->port())->code, 0);
    RawPage slow(port);
    slow.send(json({{"type", "hello"}, {"tab", tabOf("slow")}}).dump());
    slow.send(json({{"type", "join"}, {"name", "Slow"}}).dump());
    ann.waitForTable([](const json& table) { return hasPlayer(table, "Slow"); });

    const auto removed = [&](const std::vector<Request>& got) {
        return std::any_of(got.begin(), got.end(), [](const Request& r) {
            return r.request == RequestCode::playerRemoved;
        });
    };
    // Every item reaches the page that reads, one by one, while the other one's backlog grows
    // until it is dropped; its seat then logs out after the grace.
    int deals = 0;
    const std::string title(190, 't');
    while (deals < 3000 && !removed(native.clientServer->notifications())) {
        const std::string item = title + std::to_string(deals++);
        ASSERT_EQ(native.client->initNewDeal(item)->code, 0);
        ASSERT_EQ(ann.waitFor([&](const json& t) { return t.value("item", json()) == item; },
                              std::chrono::seconds(30))["item"],
                  item);
    }
    EXPECT_TRUE(native.clientServer->waitFor(removed));
    EXPECT_LT(deals, 3000);
    // The seat may have gone before the last item: look at the newest table, not the next one.
    EXPECT_TRUE(spinUntil([&] {
        const json& newest = ann.received.back();
        return newest.value("type", "") == "table" && !hasPlayer(newest, "Slow");
    }));
    EXPECT_EQ(InProcessServer::loginCount(), 2);
}

}  // namespace
}  // namespace pointlane::testkit
