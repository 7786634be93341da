#!/usr/bin/python3
"""The web table in real browsers: three headless Chromium players and one native client play a
whole game against the real server, then the stored rows are checked.

usage: browser_test.py POINTLANE_BINARY
Exit 77 (skipped) only when Chromium can't start. With POINTLANE_SCREENSHOTS=<folder> the join
page and the opened table are saved there as web-join.png and web-table.png.
"""
import base64
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
            assert [d[1] for d in deals] == ["Login page"], deals
            elections = sorted(db.execute("SELECT playerName, symbol FROM Election WHERE dealId = ?",
                                          (deals[0][0],)).fetchall())
            assert elections == expected, elections
            print("browser game passed: 3 browsers, 1 native client, %d elections stored" % len(elections))
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
