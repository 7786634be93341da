#!/usr/bin/python3
"""The web table in real browsers: three headless Chromium players and one native client play a
whole game against the real server, then the stored rows are checked.

usage: browser_test.py POINTLANE_BINARY
Two items are played; before the administrator ends the game the history page is read in one of
the browsers, and its CSV and JSON downloads are parsed and checked against what was played.
Exit 77 (skipped) only when Chromium can't start. With POINTLANE_SCREENSHOTS=<folder> the join
page, the opened table and the history page are saved there as web-join.png, web-table.png and
history-page.png.
"""
import base64
import csv
import io
import json
import os
import re
import socket
import sqlite3
import struct
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

SKIP = 77
TIMEOUT = 15


def wait_for(condition, what, timeout=TIMEOUT):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        value = condition()
        if value:
            return value
        time.sleep(0.05)
    raise AssertionError("timed out waiting for " + what)


class NativeClient:
    """A protocol client: length-prefixed JSON frames, with its own push server on loopback."""

    def __init__(self, port):
        self.listener = socket.socket()
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(1)
        self.push_port = self.listener.getsockname()[1]
        self.notifications = []
        self.lock = threading.Lock()
        threading.Thread(target=self._accept, daemon=True).start()
        self.conn = socket.create_connection(("127.0.0.1", port), timeout=10)
        self.token = None

    @staticmethod
    def _read_frame(sock):
        def exact(n):
            data = b""
            while len(data) < n:
                chunk = sock.recv(n - len(data))
                if not chunk:
                    return None
                data += chunk
            return data
        header = exact(4)
        if header is None:
            return None
        body = exact(struct.unpack("<i", header)[0])
        return None if body is None else json.loads(body)

    def _accept(self):
        push, _ = self.listener.accept()
        while True:
            frame = self._read_frame(push)
            if frame is None:
                return
            with self.lock:
                self.notifications.append(frame)

    def request(self, code, data=None):
        message = {"request": code}
        if self.token:
            message["token"] = self.token
        if data is not None:
            message["data"] = base64.b64encode(json.dumps(data).encode()).decode()
        body = json.dumps(message).encode()
        self.conn.sendall(struct.pack("<i", len(body)) + body)
        answer = self._read_frame(self.conn)
        if answer and answer.get("code") == 0 and answer.get("token"):
            self.token = answer["token"]
        return answer

    def codes(self):
        with self.lock:
            return [n["request"] for n in self.notifications]


def start_server(binary, home):
    err = open(os.path.join(home, "stderr.txt"), "w+")
    process = subprocess.Popen([binary, "--headless", "--port", "0", "--web-port", "0"],
                               env=dict(os.environ, HOME=home), stdout=subprocess.DEVNULL,
                               stderr=err)

    def ports():
        err.flush()
        text = open(err.name).read()
        game = re.search(r"Listening on port (\d+)", text)
        web = re.search(r"Web table on port (\d+)", text)
        return (int(game.group(1)), int(web.group(1))) if game and web else None
    return process, wait_for(ports, "the server's ports")


def start_browser(profile):
    from selenium import webdriver
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                 "--disable-background-networking", "--disable-component-update",
                 "--disable-sync", "--no-first-run", "--window-size=1000,900",
                 "--user-data-dir=" + profile):
        options.add_argument(flag)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    service = webdriver.ChromeService(executable_path="/usr/bin/chromedriver") \
        if hasattr(webdriver, "ChromeService") else None
    if service is None:
        from selenium.webdriver.chrome.service import Service
        service = Service(executable_path="/usr/bin/chromedriver")
    return webdriver.Chrome(options=options, service=service)


class Page:
    def __init__(self, driver, url):
        self.d = driver
        self.d.get(url)

    def el(self, selector):
        from selenium.webdriver.common.by import By
        return self.d.find_element(By.CSS_SELECTOR, selector)

    def all(self, selector):
        from selenium.webdriver.common.by import By
        return self.d.find_elements(By.CSS_SELECTOR, selector)

    def visible(self, selector):
        try:
            return self.el(selector).is_displayed()
        except Exception:
            return False

    def text(self, selector):
        try:
            return self.el(selector).text
        except Exception:
            return ""

    def wait_text(self, selector, expected):
        wait_for(lambda: self.visible(selector) and self.text(selector) == expected,
                 "%s to read %r (it reads %r)" % (selector, expected, self.text(selector)))

    def type_into(self, selector, text):
        field = self.el(selector)
        field.clear()
        field.send_keys(text)

    def players(self):
        return sorted(li.text.replace(" (you)", "") for li in self.all("#players li"))

    def cards(self):
        return sorted((li.find_element("css selector", ".who").text, li.get_attribute("data-card"))
                      for li in self.all("#cards li"))

    def errors(self):
        return [entry for entry in self.d.get_log("browser") if entry["level"] == "SEVERE"]


def fetch(url):
    with urllib.request.urlopen(url, timeout=10) as answer:
        assert answer.status == 200, (url, answer.status)
        return answer.read().decode("utf-8")


def check_history(page, web_port, shots, played):
    """Reads the history page in a new tab of page's browser, then its downloads. played lists the
    deals newest first as (name, sorted (player, card) pairs, displayed (count, average, median,
    minimum, maximum), consensus)."""
    base = "http://127.0.0.1:%d" % web_port

    # The cards reach the database after the open; wait until the export holds all of them.
    def stored():
        games = json.loads(fetch(base + "/history.json"))["games"]
        return games and sum(len(d["elections"]) for d in games[0]["deals"]) == \
            sum(len(p[1]) for p in played)
    wait_for(stored, "every played card in /history.json")
    table_tab = page.d.current_window_handle
    page.d.switch_to.new_window("tab")
    page.d.get(base + "/history")
    wait_for(lambda: page.all("details.game[data-game-id] li.deal[data-deal-id]"), "the history's deals")
    games = page.all("details.game[data-game-id]")
    assert len(games) == 1 and games[0].get_attribute("open") is not None, len(games)
    game = games[0]
    assert game.find_element("css selector", ".game-name").text == "Sprint 12"
    assert game.find_element("css selector", ".game-admin").text == "Ann"
    assert game.find_element("css selector", ".game-summary").text == "2 deals, 1 with consensus"
    shown = []
    for deal in game.find_elements("css selector", "li.deal[data-deal-id]"):
        def texts(selector):
            return [e.text for e in deal.find_elements("css selector", selector)]
        shown.append((texts(".deal-name")[0],
                      sorted(zip(texts(".card-player"), texts(".card-symbol"))),
                      tuple(texts("dd." + n)[0] for n in ("count", "average", "median", "minimum", "maximum")),
                      texts(".consensus") == ["Consensus"]))
    assert shown == played, shown
    ids = [int(d.get_attribute("data-deal-id")) for d in game.find_elements("css selector", "li.deal")]
    assert ids == sorted(ids, reverse=True), ids
    game_id = game.get_attribute("data-game-id")
    game_date = game.find_element("css selector", "time.game-date").get_attribute("datetime")
    if shots:
        page.d.save_screenshot(os.path.join(shots, "history-page.png"))

    # The downloads the page links to: everything, and this one game (the same here).
    links = {name: page.el(name).get_attribute("href")
             for name in ("#all-csv", "#all-json", ".download-csv", ".download-json")}
    assert links[".download-csv"] == base + "/history.csv?game=" + game_id, links
    assert links[".download-json"] == base + "/history.json?game=" + game_id, links
    errors = page.errors()
    assert not errors, errors
    assert "error" not in page.el("#status").get_attribute("class")
    page.d.close()
    page.d.switch_to.window(table_tab)

    text = fetch(links["#all-csv"])
    assert fetch(links[".download-csv"]) == text
    rows = list(csv.reader(io.StringIO(text, newline="")))
    assert rows[0] == ["game", "date", "administrator", "deal", "player", "card", "cards", "numeric cards",
                       "average", "median", "minimum", "maximum", "consensus", "estimate"], rows[0]
    document = json.loads(fetch(links["#all-json"]))
    assert json.loads(fetch(links[".download-json"])) == document
    assert [g["name"] for g in document["games"]] == ["Sprint 12"], document
    stored_game = document["games"][0]
    assert (str(stored_game["id"]), stored_game["administrator"], stored_game["statistics"]) == \
        (game_id, "Ann", {"deals": 2, "consensusDeals": 1}), stored_game
    assert stored_game["date"] == game_date, (stored_game["date"], game_date)
    assert {tuple(r[:3]) for r in rows[1:]} == {("Sprint 12", game_date, "Ann")}, rows
    numbers = {"Search box": (4, 3, 3, 3, 3, 3), "Login page": (4, 4, 7.75, 6.5, 5, 13)}
    assert sorted(d["name"] for d in stored_game["deals"]) == sorted(p[0] for p in played)
    for name, cards, _, consensus in played:
        deal = next(d for d in stored_game["deals"] if d["name"] == name)
        assert deal["estimate"] is None, deal
        assert sorted((e["player"], e["card"]) for e in deal["elections"]) == cards, deal
        s = deal["statistics"]
        assert sorted(s["cards"]) == sorted(c for _, c in cards), s
        assert (s["count"], s["numericCount"], s["average"], s["median"], s["minimum"], s["maximum"],
                s["consensus"]) == numbers[name] + (consensus,), s
        deal_rows = [r for r in rows[1:] if r[3] == name]
        assert sorted((r[4], r[5]) for r in deal_rows) == cards, deal_rows
        for r in deal_rows:
            assert [float(v) for v in r[6:12]] == list(numbers[name]) and \
                r[12] == ("true" if consensus else "false") and r[13] == "", r
    assert len(rows) == 1 + sum(len(p[1]) for p in played), rows


def main():
    binary = sys.argv[1]
    shots = os.environ.get("POINTLANE_SCREENSHOTS")
    with tempfile.TemporaryDirectory() as home:
        process, (game_port, web_port) = start_server(binary, home)
        drivers = []
        try:
            try:
                for i in range(3):
                    drivers.append(start_browser(os.path.join(home, "profile%d" % i)))
            except Exception as error:  # noqa: BLE001 - any failure to start is a skip
                print("SKIP: Chromium can't start: %s" % str(error).splitlines()[0])
                return SKIP
            url = "http://127.0.0.1:%d/" % web_port
            ann, bob, cid = (Page(d, url) for d in drivers)

            # Start, join, a refused duplicate name.
            ann.wait_text("#join-button", "Start a game")
            if shots:
                ann.d.save_screenshot(os.path.join(shots, "web-join.png"))
            ann.type_into("#name", "Ann")
            ann.type_into("#game", "Sprint 12")
            ann.el("#join-button").click()
            ann.wait_text("#leave", "End game")
            for page, name in ((bob, "Bob"), (cid, "bob"), (cid, "Cid")):
                page.d.refresh()
                page.wait_text("#join-button", "Join Sprint 12")
                page.type_into("#name", name)
                page.el("#join-button").click()
                if name == "bob":
                    page.wait_text("#error", "That name is taken.")
                else:
                    page.wait_text("#leave", "Leave")
            native = NativeClient(game_port)
            assert native.request(1, {"player_name": "Nat", "client_server_port": native.push_port})["code"] == 0
            everyone = ["Ann", "Bob", "Cid", "Nat"]
            for page in (ann, bob, cid):
                wait_for(lambda: page.players() == everyone, "all four players")

            # Put up an item, pick and play.
            ann.type_into("#title", "Login page")
            ann.el("#deal").click()
            for page in (ann, bob, cid):
                page.wait_text("#item", "Login page")
            for page, card in ((ann, "5"), (bob, "8"), (cid, "5")):
                page.el('#deck [data-card="%s"]' % card).click()
            assert native.request(4)["code"] == 0
            for page in (ann, bob, cid):
                page.wait_text("#played", "4")

            # A reload keeps the seat and the pick.
            bob.d.refresh()
            bob.wait_text("#leave", "Leave")
            wait_for(lambda: bob.el('#deck [data-card="8"]').get_attribute("aria-pressed") == "true",
                     "Bob's pick after the reload")
            assert bob.players() == everyone and bob.text("#played") == "4"

            # Open: every page shows all four cards and the statistics.
            cid.el("#open").click()
            wait_for(lambda: 5 in native.codes(), "the native client's openCards")
            assert native.request(8, {"player_name": "Nat", "symbol": "13"})["code"] == 0
            expected = [("Ann", "5"), ("Bob", "8"), ("Cid", "5"), ("Nat", "13")]
            for page in (ann, bob, cid):
                wait_for(lambda: page.cards() == expected, "all four cards")
                assert (page.text("#average"), page.text("#median"), page.text("#consensus")) == \
                    ("7.75", "6.5", "No"), (page.text("#average"), page.text("#median"))
            if shots:
                ann.d.save_screenshot(os.path.join(shots, "web-table.png"))
            for page in (ann, bob, cid):
                assert not page.errors(), page.errors()

            # A second item: a "?" counts as a card but not as a number, the other three agree.
            ann.type_into("#title", "Search box")
            ann.el("#deal").click()
            for page in (ann, bob, cid):
                page.wait_text("#item", "Search box")
                page.wait_text("#played", "0")
            for page, card in ((ann, "3"), (bob, "?"), (cid, "3")):
                page.el('#deck [data-card="%s"]' % card).click()
            assert native.request(4)["code"] == 0
            ann.wait_text("#played", "4")
            ann.el("#open").click()
            wait_for(lambda: native.codes().count(5) == 2, "the second openCards")
            assert native.request(8, {"player_name": "Nat", "symbol": "3"})["code"] == 0
            second = [("Ann", "3"), ("Bob", "?"), ("Cid", "3"), ("Nat", "3")]
            for page in (ann, bob, cid):
                wait_for(lambda: page.cards() == second, "the second deal's cards")
                assert (page.text("#average"), page.text("#median"), page.text("#consensus")) == \
                    ("3", "3", "Yes"), (page.text("#average"), page.text("#median"))
            check_history(cid, web_port, shots, [("Search box", second, ("4", "3", "3", "3", "3"), True),
                                                 ("Login page", expected, ("4", "7.75", "6.5", "5", "13"), False)])

            # The administrator ends the game; every page says so and the server ends.
            ann.el("#leave").click()
            ann.wait_text("#ended-text", "You ended the game. The server is closing.")
            for page in (bob, cid):
                page.wait_text("#ended-text", "The game has ended: the administrator closed the table.")
            assert process.wait(timeout=10) == 0
            for page in (ann, bob, cid):
                assert not page.errors(), page.errors()

            db = sqlite3.connect(os.path.join(home, ".Pointlane", "Pointlane.sqlite"))
            games = db.execute("SELECT id, name, admin FROM Game").fetchall()
            assert [(g[1], g[2]) for g in games] == [("Sprint 12", "Ann")], games
            deals = db.execute("SELECT id, name FROM Deal WHERE gameId = ?", (games[0][0],)).fetchall()
            assert sorted(d[1] for d in deals) == ["Login page", "Search box"], deals
            for deal_id, name in deals:
                elections = sorted(db.execute("SELECT playerName, symbol FROM Election WHERE dealId = ?",
                                              (deal_id,)).fetchall())
                assert elections == (expected if name == "Login page" else second), (name, elections)
            print("browser game passed: 3 browsers, 1 native client, 2 deals, history page and downloads")
            return 0
        finally:
            for driver in drivers:
                try:
                    driver.quit()
                except Exception:  # noqa: BLE001
                    pass
            if process.poll() is None:
                process.kill()
                process.wait()


if __name__ == "__main__":
    sys.exit(main())
