#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "WebFixture.h"
#include "transport/SocketFunctions.h"

namespace pointlane::testkit {
namespace {

using nlohmann::json;

// The table's current item, or an empty object.
json currentOf(const json& m) {
    const json& current = m["table"]["current"];
    return current.is_object() ? current : json::object();
}

bool isSeated(const json& m) {
    return m["me"]["seat"] == "seated";
}

TEST_F(WebFixture, RefusedJoinsCostNoSeatAndFivePagesSitDown) {
    Page& early = lobbyPage("early");
    early.send({{"type", "join"}, {"name", "Bob"}});
    EXPECT_EQ(early.waitForError(), "No game has been started yet: start one instead.");

    Page& ann = seated("Ann", "Sprint 12");
    const json annTable = ann.lastTable();
    EXPECT_TRUE(annTable["me"]["facilitator"]);
    EXPECT_EQ(annTable["table"]["game"], "Sprint 12");
    EXPECT_TRUE(seatNamed(annTable, "Ann")["web"]);

    // Refused by the table before any login goes out.
    early.send({{"type", "join"}, {"name", "ANN"}});
    EXPECT_EQ(early.waitForError(), "That name is taken.");
    Page& other = lobbyPage("other");
    other.send({{"type", "start"}, {"name", "Cid"}, {"game", "Mine"}, {"deck", "standard"}});
    EXPECT_EQ(other.waitForError(), "A game has already been started: join it instead.");
    // Two pages ask for one name at the same moment: one login goes out, one page is refused.
    Page& bob1 = lobbyPage("bob1");
    Page& bob2 = lobbyPage("bob2");
    bob1.send({{"type", "join"}, {"name", "Bob"}});
    bob2.send({{"type", "join"}, {"name", "bob"}});
    EXPECT_TRUE(
        spinUntil([&] { return isSeated(bob1.lastTable()) || isSeated(bob2.lastTable()); }));
    Page& refused = isSeated(bob1.lastTable()) ? bob2 : bob1;
    EXPECT_EQ(refused.waitForError(), "That name is taken.");
    EXPECT_EQ(InProcessServer::loginCount(), 2);

    // Three more pages at once: every seat is taken, one login at a time.
    refused.send({{"type", "join"}, {"name", "Dan"}});
    early.send({{"type", "join"}, {"name", "Eve"}});
    other.send({{"type", "join"}, {"name", "Cid"}});
    for (Page* p : {&refused, &early, &other}) {
        p->waitForTable(isSeated);
    }
    EXPECT_EQ(InProcessServer::loginCount(), 5);
    const json full = ann.waitForTable([](const json& m) { return m["table"]["free"] == 0; });
    EXPECT_EQ(full["table"]["seats"].size(), 5u);
    Page& late = lobbyPage("late");
    EXPECT_EQ(late.lastTable()["table"]["free"], 0);
    late.send({{"type", "join"}, {"name", "Fay"}});
    EXPECT_EQ(late.waitForError(), "Five players are already at the table.");
    EXPECT_EQ(InProcessServer::loginCount(), 5);
}

TEST_F(WebFixture, EveryPageDrawsTheModelAndSeatsElectTheirOwnPicks) {
    Page& ann = seated("Ann", "Sprint");
    TestPlayer native = connectPlayer(*server);
    ASSERT_EQ(native.client->loginPlayer("Nat", native.clientServer->port())->code, 0);
    Page& bob = seated("Bob");
    const json everyone =
        ann.waitForTable([](const json& m) { return hasPlayer(m, "Bob") && hasPlayer(m, "Nat"); });
    EXPECT_FALSE(seatNamed(everyone, "Nat")["web"]);

    ann.send({{"type", "deal"}, {"title", "Login page"}});
    bob.waitForTable([](const json& m) { return currentOf(m)["title"] == "Login page"; });
    ann.send({{"type", "play"}, {"card", "5"}});
    bob.send({{"type", "play"}, {"card", "1/2"}});
    // Changing the pick before the cards open is no second play.
    bob.send({{"type", "play"}, {"card", "8"}});
    bob.waitFor(
        [](const json& m) { return m.value("type", "") == "me" && m["me"]["pick"] == "8"; });
    bob.send({{"type", "play"}, {"card", "7"}});
    EXPECT_EQ(bob.waitForError(), "That card is not in the deck.");
    const json two = ann.waitForTable([](const json& m) { return m["table"]["played"] == 2; });
    EXPECT_FALSE(two["table"]["current"].contains("cards"));  // nothing shown before the reveal

    // The last play opens the cards through the facilitator's seat: natives see an open.
    ASSERT_EQ(native.client->play()->code, 0);
    ASSERT_TRUE(spinUntil([&] {
        const auto got = native.clientServer->notifications();
        return std::any_of(got.begin(), got.end(),
                           [](const Request& r) { return r.request == RequestCode::openCards; });
    })) << ann.lastTable().dump();
    ASSERT_EQ(native.client->cardElected("Nat", "13")->code, 0);
    const json opened = bob.waitForTable(
        [](const json& m) { return currentOf(m).value("cards", json::array()).size() == 3; });
    const json& item = opened["table"]["current"];
    EXPECT_EQ(item["statistics"]["median"], 8.0);
    EXPECT_FALSE(item["statistics"]["consensus"]);
    EXPECT_EQ(item["proposed"], "8");
    bob.send({{"type", "play"}, {"card", "3"}});
    EXPECT_EQ(bob.waitForError(), "The cards are already open.");

    // A page that arrives late sees the item and its opened cards.
    Page& cid = seated("Cid");
    const json late = cid.lastTable();
    EXPECT_EQ(late["table"]["current"]["title"], "Login page");
    EXPECT_EQ(late["table"]["current"]["cards"].size(), 3u);

    // Only the facilitator runs the table; the final estimate and a re-vote.
    bob.send({{"type", "deal"}, {"title", "Mine"}});
    EXPECT_EQ(bob.waitForError(), "Only the facilitator runs the table.");
    ann.send({{"type", "estimate"}, {"item", 1}, {"card", "8"}});
    cid.waitForTable([](const json& m) { return currentOf(m)["estimate"] == "8"; });
    ann.send({{"type", "revote"}});
    const json again = bob.waitForTable([](const json& m) { return currentOf(m)["number"] == 2; });
    EXPECT_EQ(again["table"]["current"]["title"], "Login page");
    EXPECT_TRUE(spinUntil([&] {
        const json& newest = bob.received.back();
        return newest.contains("me") && newest["me"]["pick"].is_null();
    }));
    EXPECT_EQ(again["table"]["items"][0]["estimate"], "8");

    // The facilitator's page ends the game; every seat's page says so.
    ann.send({{"type", "leave"}});
    EXPECT_EQ(ann.waitForType("ended")["text"], "You ended the game. The server is closing.");
    EXPECT_EQ(bob.waitForType("ended")["text"],
              "The game has ended: the facilitator closed the table.");
    EXPECT_TRUE(spinUntil([&] { return web->gateway().sessionCount() == 0; }));
}

TEST_F(WebFixture, TheSeatKeyTakesTheSeatBackAndTheNewestPageWins) {
    Page& ann = seated("Ann", "Sprint");
    Page& bob = seated("Bob");
    ann.send({{"type", "deal"}, {"title", "Search box"}});
    bob.waitForTable([](const json& m) { return !currentOf(m).empty(); });
    bob.send({{"type", "play"}, {"card", "3"}});
    ann.waitForTable([](const json& m) { return m["table"]["played"] == 1; });

    // A new tab of the same browser: the seat and its pick, without a second login.
    Page& tab = page("Bob");
    tab.hello();
    const json t = tab.waitForTable(isSeated);
    EXPECT_EQ(t["me"]["pick"], "3");
    EXPECT_TRUE(t["me"]["played"]);
    bob.waitForType("replaced");
    EXPECT_TRUE(spinUntil([&] { return bob.closed; }));
    EXPECT_EQ(InProcessServer::loginCount(), 2);

    // Closed, then back within the grace; then away for longer than the grace.
    tab.close();
    ann.waitForTable([](const json& m) { return seatNamed(m, "Bob")["present"] == false; });
    Page& back = page("Bob");
    back.hello();
    back.waitForTable(isSeated);
    ann.waitForTable([](const json& m) { return seatNamed(m, "Bob")["present"] == true; });
    back.close();
    ann.waitForTable([](const json& m) { return !hasPlayer(m, "Bob"); });
    EXPECT_EQ(InProcessServer::loginCount(), 1);
    Page& later = page("Bob");
    later.hello();
    EXPECT_EQ(later.waitForTable([](const json&) { return true; })["me"]["seat"], "none");
}

TEST_F(WebFixture, TheFacilitatorsPageGoingAwayKeepsTheGame) {
    Page& ann = seated("Ann", "Sprint");
    Page& bob = seated("Bob");
    Page& cid = seated("Cid");
    ann.close();
    bob.waitForTable([](const json& m) { return seatNamed(m, "Ann")["present"] == false; });
    // Cid goes after Ann: once Cid's seat has gone, Ann's grace has long run out too.
    cid.close();
    bob.waitForTable([](const json& m) { return !hasPlayer(m, "Cid"); });
    const json still = bob.lastTable();
    EXPECT_EQ(still["table"]["phase"], "open");
    EXPECT_TRUE(hasPlayer(still, "Ann"));
    EXPECT_EQ(InProcessServer::loginCount(), 2);

    Page& back = page("Ann");
    back.hello();
    const json t = back.waitForTable(isSeated);
    EXPECT_TRUE(t["me"]["facilitator"]);
    EXPECT_TRUE(t["me"]["controls"]);
    back.send({{"type", "leave"}});
    EXPECT_EQ(bob.waitForType("ended")["text"],
              "The game has ended: the facilitator closed the table.");
}

TEST_F(WebFixture, WatchersSeeTheTableAndTakeNoSeat) {
    std::vector<std::unique_ptr<Page>> watchers;
    for (int i = 0; i < 32; ++i) {
        watchers.push_back(std::make_unique<Page>(port, seatOf("w" + std::to_string(i))));
        watchers.back()->send({{"type", "watch"}});
    }
    Page& ann = seated("Ann", "Sprint");
    for (auto& watcher : watchers) {
        const json t = watcher->waitForTable([](const json& m) { return hasPlayer(m, "Ann"); });
        EXPECT_EQ(t["me"]["seat"], "watch");
    }
    watchers[0]->send({{"type", "join"}, {"name", "Wat"}});
    EXPECT_EQ(watchers[0]->waitForError(), "This page only watches the table.");
    EXPECT_EQ(InProcessServer::loginCount(), 1);
    EXPECT_EQ(web->gateway().sessionCount(), 1u);
    EXPECT_EQ(ann.lastTable()["table"]["free"], 4);
}

TEST_F(WebFixture, UnderANativeFacilitatorTheWebSeatsRunTheTableAndOpenTheCards) {
    TestPlayer nat = connectPlayer(*server);
    ASSERT_EQ(nat.client->loginAdmin("Nat", "Native", nat.clientServer->port())->code, 0);
    Page& bob = seated("Bob");
    EXPECT_TRUE(bob.lastTable()["me"]["controls"]);
    EXPECT_FALSE(seatNamed(bob.lastTable(), "Nat")["web"]);
    bob.send({{"type", "deal"}, {"title", "Item"}});
    bob.waitForTable([](const json& m) { return currentOf(m)["title"] == "Item"; });
    bob.send({{"type", "play"}, {"card", "5"}});
    ASSERT_EQ(nat.client->play()->code, 0);
    // Everyone has played: the cards open through the web seat, as an ordinary open.
    EXPECT_TRUE(spinUntil([&] {
        const auto got = nat.clientServer->notifications();
        return std::any_of(got.begin(), got.end(),
                           [](const Request& r) { return r.request == RequestCode::openCards; });
    }));
    bob.waitForTable(
        [](const json& m) { return currentOf(m).value("cards", json::array()).size() == 1; });
}

TEST_F(WebFixture, AgendaQuickRoundsAndTheCountdownOpenTheCards) {
    Page& ann = seated("Ann", "Sprint");
    ann.send({{"type", "agenda"}, {"text", "id;name\n1;x\n"}, {"format", "csv"}});
    EXPECT_EQ(ann.waitForError(), "The CSV file has no \"title\" column in its first row.");
    ann.send({{"type", "agenda"},
              {"text",
               "\xEF\xBB\xBFid,Title,points\r\n7,\"Login, \"\"new\"\"\",3\r\n8,,\r\n"
               "9,\"Two\nlines\",\r\n"},
              {"format", "csv"}});
    const json agenda =
        ann.waitForTable([](const json& m) { return !m["table"]["agenda"].empty(); });
    EXPECT_EQ(agenda["table"]["agenda"], json({"Login, \"new\"", "Two lines"}));
    ann.send({{"type", "agenda"}, {"text", "ok\nbad\xE2\x80\x8Bname\n"}, {"format", "lines"}});
    EXPECT_EQ(ann.waitForError().rfind("Line 2: ", 0), 0u);

    ann.send({{"type", "next"}});
    ann.waitForTable([](const json& m) { return currentOf(m)["title"] == "Login, \"new\""; });
    ann.send({{"type", "next"}});
    ann.waitForTable([](const json& m) { return currentOf(m)["title"] == "Two lines"; });
    ann.send({{"type", "next"}});
    const json quick = ann.waitForTable([](const json& m) { return currentOf(m)["number"] == 3; });
    EXPECT_EQ(quick["table"]["current"]["title"], "Item 3");

    // Nobody has played; at zero the cards open all the same.
    ann.send({{"type", "countdown"}, {"seconds", 1}});
    ann.waitForTable([](const json& m) { return !m["table"]["countdownEndsAtMs"].is_null(); });
    const json opened =
        ann.waitForTable([](const json& m) { return currentOf(m)["opened"] == true; });
    EXPECT_TRUE(
        opened["table"]["countdownEndsAtMs"].is_null() ||
        ann.waitForTable([](const json& m) { return m["table"]["countdownEndsAtMs"].is_null(); })
            .is_object());
}

TEST_F(WebFixture, MalformedMessagesAndInvisibleNamesGetASentenceAndNeverReachTheGame) {
    Page& p = page("p");
    p.send({{"type", "join"}, {"name", "Early"}});
    EXPECT_EQ(p.waitForError(), "This page is out of step with the table; please reload it.");
    p.send({{"type", "hello"}, {"seat", "../../etc"}});
    EXPECT_EQ(p.waitForError(), "The page did not say which seat it is.");
    p.hello();
    p.waitForType("table");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"not json", "The page sent something that is not a message."},
        {"[1,2]", "The page sent something that is not a message."},
        {R"({"name":"x"})", "The page sent a message without a type."},
        {R"({"type":"shutdown"})", "The page sent a message of an unknown type."},
        {R"({"type":"start","name":"Ann","deck":"standard"})", "The game name is missing."},
        {R"({"type":"start","name":"   ","game":"G","deck":"standard"})", "Please enter a name."},
        {R"({"type":"start","name":"Ann","game":"G","deck":"tarot"})", "That deck is unknown."},
        {R"({"type":"start","name":"Ann","game":"G","deck":"custom","cards":["1","1"]})", ""},
        {R"({"type":"join","name":42})", "The name is missing."},
        {R"({"type":"countdown","seconds":-5})", "A countdown lasts from 1 second to an hour."},
        {R"({"type":"deal","title":"Item"})", "Join the table first."},
        {json({{"type", "join"}, {"name", std::string(201, 'x')}}).dump(), ""},
    };
    for (const auto& [text, error] : cases) {
        p.sendText(text);
        const std::string got = p.waitForError();
        if (error.empty()) {
            EXPECT_FALSE(got.empty()) << text;
        } else {
            EXPECT_EQ(got, error) << text;
        }
    }
    // Look-alike names: zero-width space, bidi override, byte-order mark, soft hyphen, control.
    for (const char* name : {"Bo\u200Bb", "\u202EboB", "\uFEFFbob", "bo\u00ADb", "a\u0007b"}) {
        p.send({{"type", "start"}, {"name", name}, {"game", "G"}, {"deck", "standard"}});
        EXPECT_NE(p.waitForError().find("name"), std::string::npos) << name;
    }
    p.socket().sendBinaryMessage("binary");
    EXPECT_EQ(p.waitForError(), "The page sent something that is not a message.");
    EXPECT_EQ(InProcessServer::loginCount(), 0);

    // A name with a no-break space at its end is the same name as without it.
    p.send({{"type", "start"}, {"name", "bob\u00A0"}, {"game", "G"}, {"deck", "fibonacci"}});
    const json bob = p.waitForTable(isSeated);
    EXPECT_EQ(bob["me"]["name"], "bob");
    EXPECT_EQ(bob["table"]["deck"]["id"], "fibonacci");
    Page& q = lobbyPage("q");
    q.send({{"type", "join"}, {"name", "bob"}});
    EXPECT_EQ(q.waitForError(), "That name is taken.");

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
    p.waitForTable([](const json& m) { return currentOf(m)["title"] == "Still here"; });
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
    void adjust(WebServer::Options& options) override { options.gateway.sendLimit = 64 * 1024; }
};

TEST_F(SlowPageTest, APageThatStopsReadingIsDroppedAndItsSeatLogsOutWhileOthersGoOn) {
    Page& ann = seated("Ann", "Sprint");
    TestPlayer native = connectPlayer(*server);
    ASSERT_EQ(native.client->loginPlayer("Nat", native.clientServer->port())->code, 0);
    RawPage slow(port);
    slow.send(json({{"type", "hello"}, {"seat", seatOf("slow")}}).dump());
    slow.send(json({{"type", "join"}, {"name", "Slow"}}).dump());
    ann.waitForTable([](const json& m) { return hasPlayer(m, "Slow"); });

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
        ASSERT_EQ(ann.waitFor(
                      [&](const json& m) {
                          return m.value("type", "") == "table" &&
                                 currentOf(m).value("title", "") == item;
                      },
                      std::chrono::seconds(30))["table"]["current"]["title"],
                  item);
    }
    EXPECT_TRUE(spinUntil([&] { return removed(native.clientServer->notifications()); }));
    EXPECT_LT(deals, 3000);
    EXPECT_TRUE(spinUntil([&] { return !hasPlayer(ann.lastTable(), "Slow"); }));
    EXPECT_EQ(InProcessServer::loginCount(), 2);
}

}  // namespace
}  // namespace pointlane::testkit
