#!/usr/bin/python3
"""The web table in real browsers: four headless Chromium players (one on a phone viewport), one
native client and a watcher play a whole session against the real server binary.

usage: browser_test.py POINTLANE_BINARY

The session: a custom deck (a wrong one refused first), a refused name, an agenda of three items,
keys picking a card, the automatic reveal, a final estimate, a late joiner who sees the opened
cards, a full table whose next visitor is offered to watch, a re-vote, replacing an item while
cards are played (after a confirmation), a 15 s network cut of one page through a proxy that the
page recovers from by itself while the facilitator's tab stays closed for longer than the grace,
the countdown, the history page with its final estimates and both downloads, contrast computed
from the styles in light and dark, and a server restart that the open pages notice.
Exit 77 (skipped) only when Chromium can't start. With POINTLANE_SCREENSHOTS=<folder> the pages
are saved there (web-join.png, web-table.png, web-table-phone.png, web-table-dark.png,
web-watch-dark.png, history-page.png).
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
GRACE_MS = 18000  # longer than the network cut, so the cut page keeps its seat
CUT_SECONDS = 15
CUSTOM = ["1", "2", "3", "5", "8", "13", "?", "coffee"]


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


class Proxy:
    """A TCP proxy between one browser and the web table, whose connections can be cut: a cut
    closes every connection and, until it ends, closes each new one at once."""

    def __init__(self, target_port):
        self.target = target_port
        self.server = socket.socket()
        self.server.bind(("127.0.0.1", 0))
        self.server.listen(64)
        self.port = self.server.getsockname()[1]
        self.lock = threading.Lock()
        self.links = []
        self.cut_until = 0.0
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                conn, _ = self.server.accept()
            except OSError:
                return
            if time.monotonic() < self.cut_until:
                conn.close()
                continue
            try:
                upstream = socket.create_connection(("127.0.0.1", self.target), timeout=5)
                upstream.settimeout(None)
            except OSError:
                conn.close()
                continue
            with self.lock:
                self.links.append((conn, upstream))
            for a, b in ((conn, upstream), (upstream, conn)):
                threading.Thread(target=self._pump, args=(a, b), daemon=True).start()

    @staticmethod
    def _pump(source, sink):
        try:
            while True:
                data = source.recv(65536)
                if not data:
                    break
                sink.sendall(data)
        except OSError:
            pass
        for s in (source, sink):
            try:
                s.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def cut(self, seconds):
        self.cut_until = time.monotonic() + seconds
        with self.lock:
            links, self.links = self.links, []
        for pair in links:
            for s in pair:
                try:
                    s.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass


def start_server(binary, home, web_port=0):
    err = open(os.path.join(home, "stderr.txt"), "w+")
    start = err.seek(0, io.SEEK_END)
    process = subprocess.Popen([binary, "--headless", "--port", "0", "--web-port", str(web_port),
                                "--web-grace-ms", str(GRACE_MS)],
                               env=dict(os.environ, HOME=home), stdout=subprocess.DEVNULL,
                               stderr=err)

    def ports():
        err.flush()
        with open(err.name) as f:
            f.seek(start)
            text = f.read()
        game = re.search(r"Listening on port (\d+)", text)
        web = re.search(r"Web table on port (\d+)", text)
        return (int(game.group(1)), int(web.group(1))) if game and web else None
    return process, wait_for(ports, "the server's ports")


def start_browser(profile, size="1100,900"):
    from selenium import webdriver
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                 "--disable-background-networking", "--disable-component-update",
                 "--disable-sync", "--no-first-run", "--window-size=" + size,
                 "--disable-renderer-backgrounding", "--disable-background-timer-throttling",
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
    """One tab. Every call first brings its tab to the front of its browser."""

    def __init__(self, driver, url, new_tab=False):
        self.d = driver
        if new_tab:
            self.d.switch_to.new_window("tab")
        self.handle = self.d.current_window_handle
        self.d.get(url)

    def front(self):
        if self.d.current_window_handle != self.handle:
            self.d.switch_to.window(self.handle)

    def el(self, selector):
        from selenium.webdriver.common.by import By
        self.front()
        return self.d.find_element(By.CSS_SELECTOR, selector)

    def all(self, selector):
        from selenium.webdriver.common.by import By
        self.front()
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

    def wait_text(self, selector, expected, timeout=TIMEOUT):
        wait_for(lambda: self.visible(selector) and self.text(selector) == expected,
                 "%s to read %r (it reads %r)" % (selector, expected, self.text(selector)), timeout)

    def wait_visible(self, selector, timeout=TIMEOUT):
        wait_for(lambda: self.visible(selector), selector + " to show", timeout)

    def type_into(self, selector, text):
        field = self.el(selector)
        field.clear()
        field.send_keys(text)

    def click(self, selector):
        self.el(selector).click()

    def js(self, script, *args):
        self.front()
        return self.d.execute_script(script, *args)

    # Read in one script: the lists are drawn again whenever the table changes.
    def seats(self):
        """{name: state} of the table's seats."""
        return dict(self.js("return [...document.querySelectorAll('#seats li')]"
                            ".map((li) => [li.dataset.name, li.dataset.state]);"))

    def cards(self):
        return sorted(tuple(c) for c in self.js(
            "return [...document.querySelectorAll('#result-body .opened-card')]"
            ".map((li) => [li.dataset.name, li.dataset.card]);"))

    def stat(self, name):
        return self.text('#result-body dd[data-stat="%s"]' % name)

    def close_tab(self):
        """Closes this tab, keeping the browser open on a blank one."""
        self.front()
        self.d.switch_to.new_window("tab")
        blank = self.d.current_window_handle
        self.d.switch_to.window(self.handle)
        self.d.close()
        self.d.switch_to.window(blank)

    def confirm(self):
        wait_for(lambda: self.js("return document.getElementById('confirm').open"), "the dialog")
        self.click("#confirm-ok")

    def script_errors(self):
        return [e for e in self.d.get_log("browser")
                if e["level"] == "SEVERE" and e.get("source") == "javascript"]

    def dark(self, on):
        self.front()
        self.d.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-color-scheme", "value": "dark" if on else "light"}]})


# Contrast of every visible text against what is behind it (4.5:1, WCAG AA), and of the
# borders of controls and of the focus ring (3:1). Disabled controls are exempt, as WCAG says.
CONTRAST = r"""
function rgba(text) {
  const m = text.match(/rgba?\(([^)]+)\)/);
  if (!m) return [0, 0, 0, 0];
  const p = m[1].split(/[ ,/]+/).filter(Boolean).map(Number);
  return [p[0], p[1], p[2], p.length > 3 ? p[3] : 1];
}
function over(top, bottom) {
  const a = top[3];
  return [0, 1, 2].map((i) => top[i] * a + bottom[i] * (1 - a)).concat([1]);
}
function behind(node) {
  const layers = [];
  for (let n = node; n && n.nodeType === 1; n = n.parentElement) {
    const c = rgba(getComputedStyle(n).backgroundColor);
    if (c[3] > 0) layers.push(c);
    if (c[3] === 1) break;
  }
  let color = [255, 255, 255, 1];
  for (const layer of layers.reverse()) color = over(layer, color);
  return color;
}
function luminance(c) {
  const f = (v) => { v /= 255; return v <= 0.03928 ? v / 12.92 : Math.pow((v + 0.055) / 1.055, 2.4); };
  return 0.2126 * f(c[0]) + 0.7152 * f(c[1]) + 0.0722 * f(c[2]);
}
function ratio(a, b) {
  const [x, y] = [luminance(a), luminance(b)].sort((p, q) => q - p);
  return (x + 0.05) / (y + 0.05);
}
function shown(el) {
  const r = el.getBoundingClientRect();
  return r.width > 0 && r.height > 0 && getComputedStyle(el).visibility !== 'hidden';
}
const bad = [];
const texts = document.evaluate('//body//text()[normalize-space()]', document, null, 7, null);
for (let i = 0; i < texts.snapshotLength; i++) {
  const el = texts.snapshotItem(i).parentElement;
  if (!el || !shown(el) || el.closest('.visually-hidden, option, script, style')) continue;
  if (el.closest(':disabled') || el.closest('[disabled]')) continue;
  const back = behind(el);
  const value = ratio(over(rgba(getComputedStyle(el).color), back), back);
  if (value < 4.5) bad.push(['text', el.tagName + '.' + el.className, el.textContent.trim().slice(0, 30), value.toFixed(2)]);
}
for (const el of document.querySelectorAll('input:not([type=checkbox]):not([type=radio]):not([type=file]), select, textarea, button.card, .panel')) {
  if (!shown(el) || el.disabled) continue;
  const style = getComputedStyle(el);
  if (parseFloat(style.borderTopWidth) === 0) continue;
  const value = ratio(rgba(style.borderTopColor), behind(el.parentElement));
  if (value < 3) bad.push(['border', el.tagName + '#' + el.id + '.' + el.className, '', value.toFixed(2)]);
}
const probe = document.querySelector(arguments[0]);
if (probe && shown(probe)) {
  probe.focus({focusVisible: true});
  const style = getComputedStyle(probe);
  const value = ratio(rgba(style.outlineColor), behind(probe.parentElement));
  if (style.outlineStyle === 'none' || value < 3) bad.push(['focus', arguments[0], style.outlineStyle, value.toFixed(2)]);
  probe.blur();
}
return bad;
"""


def check_contrast(page, focus_selector, what):
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.common.keys import Keys
    for dark in (False, True):
        page.dark(dark)
        # A key press first: focus moved by a script then shows the ring, as after a Tab.
        ActionChains(page.d).send_keys(Keys.SHIFT).perform()
        bad = page.js(CONTRAST, focus_selector)
        assert not bad, "%s (%s): %s" % (what, "dark" if dark else "light", bad)
    page.dark(False)


def fetch(url):
    with urllib.request.urlopen(url, timeout=10) as answer:
        assert answer.status == 200, (url, answer.status)
        return answer.read().decode("utf-8")


def check_history(page, base, shots, estimates):
    """The history page and both downloads carry the game's deals with their final estimates.
    estimates: {deal name: [estimate of each deal of that name, oldest first]}."""
    def stored():
        games = json.loads(fetch(base + "/history.json"))["games"]
        if not games:
            return None
        deals = sorted(games[0]["deals"], key=lambda d: d["id"])
        got = {}
        for deal in deals:
            got.setdefault(deal["name"], []).append(deal.get("estimate"))
        return games[0] if got == estimates else None
    game = wait_for(stored, "every deal and estimate in /history.json")
    assert (game["name"], game["administrator"]) == ("Sprint 12", "Ann"), game
    page.front()
    page.d.get(base + "/history")
    wait_for(lambda: page.all("details.game[data-game-id] li.deal[data-deal-id]"), "the history's deals")
    shown = {}
    for deal in page.all("details.game li.deal"):
        name = deal.find_element("css selector", ".deal-name").text
        chips = deal.find_elements("css selector", ".deal-estimate")
        shown.setdefault(name, []).append(chips[0].text if chips else None)
    wanted = {name: ["Final estimate: %s" % e if e else None for e in reversed(values)]
              for name, values in estimates.items()}
    assert shown == wanted, (shown, wanted)
    if shots:
        page.d.save_screenshot(os.path.join(shots, "history-page.png"))
    check_contrast(page, "#all-csv", "history page")

    rows = list(csv.reader(io.StringIO(fetch(base + "/history.csv"), newline="")))
    column = rows[0].index("estimate")
    by_deal = {}
    for row in rows[1:]:
        by_deal.setdefault(row[3], set()).add(row[column])
    for name, values in estimates.items():
        assert by_deal[name] == {v or "" for v in values}, (name, by_deal[name])
    assert json.loads(fetch(base + "/history.json?game=%d" % game["id"]))["games"] == [game]


def main():
    binary = sys.argv[1]
    shots = os.environ.get("POINTLANE_SCREENSHOTS")
    started = time.monotonic()
    with tempfile.TemporaryDirectory() as home:
        process, (game_port, web_port) = start_server(binary, home)
        drivers = []
        try:
            try:
                for name in ("ann", "bob", "cid"):
                    drivers.append(start_browser(os.path.join(home, name)))
                drivers.append(start_browser(os.path.join(home, "dan"), "500,900"))
                drivers[-1].execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
                    "width": 390, "height": 844, "deviceScaleFactor": 2, "mobile": True})
            except Exception as error:  # noqa: BLE001 - any failure to start is a skip
                print("SKIP: Chromium can't start: %s" % str(error).splitlines()[0])
                return SKIP
            base = "http://127.0.0.1:%d" % web_port
            proxy = Proxy(web_port)
            ann = Page(drivers[0], base + "/")
            bob = Page(drivers[1], "http://127.0.0.1:%d/" % proxy.port)
            cid = Page(drivers[2], base + "/")
            dan_driver = drivers[3]

            # The facilitator starts with a deck of her own; a wrong one is refused first.
            ann.wait_text("#join-button", "Start a game")
            if shots:
                ann.d.save_screenshot(os.path.join(shots, "web-join.png"))
            check_contrast(ann, "#name", "join page")
            ann.type_into("#name", "Ann")
            ann.type_into("#game", "Sprint 12")
            ann.click('input[name="deck"][value="custom"]')
            ann.type_into("#custom-cards", "1, 2, 2")
            ann.click("#join-button")
            wait_for(lambda: ann.text("#error") != "", "the custom deck's refusal")
            assert ann.visible("#join"), "a refused deck opened a game"
            ann.type_into("#custom-cards", ", ".join(CUSTOM))
            ann.click("#join-button")
            ann.wait_text("#leave", "End game")
            assert [b.get_attribute("data-card") for b in ann.all("#deck button")] == CUSTOM

            # The join page is live; a taken name is refused before it costs a seat.
            bob.wait_text("#join-button", "Join Sprint 12")
            bob.wait_text("#lobby-state", "Sprint 12 is open: 4 seats free.")
            bob.type_into("#name", "Bob")
            bob.click("#join-button")
            bob.wait_text("#leave", "Leave")
            cid.wait_text("#join-button", "Join Sprint 12")
            cid.type_into("#name", "bob")
            cid.click("#join-button")
            cid.wait_text("#error", "That name is taken.")
            cid.type_into("#name", "Cid")
            cid.click("#join-button")
            cid.wait_text("#leave", "Leave")
            native = NativeClient(game_port)
            assert native.request(1, {"player_name": "Nat", "client_server_port": native.push_port})["code"] == 0
            for page in (ann, bob, cid):
                wait_for(lambda: sorted(page.seats()) == ["Ann", "Bob", "Cid", "Nat"], "four seats")

            # An agenda of three; the first item; keys pick a card; the last play opens the cards.
            ann.click("#agenda-box summary")
            ann.type_into("#agenda-text", "Login page\nSearch box\nCheckout")
            ann.click("#agenda-set")
            ann.wait_text("#next", "Next: Login page")
            ann.click("#next")
            for page in (ann, bob, cid):
                page.wait_text("#item-title", "Login page")
            bob.click('#deck [data-card="5"]')
            cid.click('#deck [data-card="8"]')
            from selenium.webdriver.common.action_chains import ActionChains
            ann.front()
            ActionChains(ann.d).send_keys("3").perform()
            wait_for(lambda: ann.el('#deck [data-card="3"]').get_attribute("aria-pressed") == "true",
                     "the card picked by its key")
            wait_for(lambda: ann.seats() == {"Ann": "played", "Bob": "played", "Cid": "played",
                                             "Nat": "thinking"}, "three played, one thinking")
            assert native.request(4)["code"] == 0
            wait_for(lambda: 5 in native.codes(), "the native client's openCards")
            assert native.request(8, {"player_name": "Nat", "symbol": "13"})["code"] == 0
            first = [("Ann", "3"), ("Bob", "5"), ("Cid", "8"), ("Nat", "13")]
            for page in (ann, bob, cid):
                wait_for(lambda: page.cards() == first, "the four opened cards")
                assert (page.stat("average"), page.stat("median"), page.stat("minimum"),
                        page.stat("maximum")) == ("7.25", "6.5", "3", "13")
            assert ann.el("#estimate-card").get_attribute("value") == "8"  # nearest the median
            ann.click("#estimate")
            for page in (ann, bob, cid):
                page.wait_text("#estimate-shown", "Final estimate: 8")
            if shots:
                ann.js("window.scrollTo(0, 0)")
                ann.d.save_screenshot(os.path.join(shots, "web-table.png"))
            check_contrast(ann, "#next", "table page")

            # A late joiner on a phone sees the item and its opened cards; the table is full.
            dan = Page(dan_driver, base + "/")
            dan.wait_text("#lobby-state", "Sprint 12 is open: 1 seat free.")
            dan.type_into("#name", "Dan")
            dan.click("#join-button")
            dan.wait_text("#item-title", "Login page")
            wait_for(lambda: dan.cards() == first, "the late joiner's opened cards")
            dan.wait_text("#estimate-shown", "Final estimate: 8")
            if shots:
                dan.d.save_screenshot(os.path.join(shots, "web-table-phone.png"))
            check_contrast(dan, "#leave", "phone table")
            # The deck of a phone sits at its bottom edge.
            edge = dan.js("const r = document.getElementById('deck-panel').getBoundingClientRect();"
                          "return [r.bottom, window.innerHeight];")
            assert abs(edge[0] - edge[1]) < 2, edge

            # Someone else finds the table full and is offered to watch (another origin: a
            # browser of its own as far as the page can tell).
            eve = Page(drivers[2], "http://127.0.0.2:%d/" % web_port, new_tab=True)
            eve.wait_text("#lobby-state", "Sprint 12 is open, and every seat is taken.")
            assert not eve.el("#join-button").is_enabled()
            eve.wait_visible("#full-note")
            eve.click("#full-note a")
            eve.wait_text("#item-title", "Login page")
            wait_for(lambda: sorted(eve.seats()) == ["Ann", "Bob", "Cid", "Dan", "Nat"], "five seats watched")
            wait_for(lambda: eve.cards() == first, "the watcher's opened cards")

            # A re-vote; replacing an item with cards played on it asks first.
            ann.click("#revote")
            for page in (ann, bob, dan, eve):
                page.wait_text("#item-status", "0 of 5 players played.")
            assert ann.text("#item-number") == "Item 2" and not ann.visible("#result")
            bob.click('#deck [data-card="13"]')
            ann.wait_text("#item-status", "1 of 5 players played.")
            ann.click("#next")
            ann.confirm()
            for page in (ann, bob, cid, dan, eve):
                page.wait_text("#item-title", "Search box")

            # The network drops under Bob's page for 15 s while the facilitator's tab and Cid's
            # are closed: Bob's page says so and recovers by itself; Cid's seat goes after the
            # grace, the facilitator's stays.
            proxy.cut(CUT_SECONDS)
            cut_at = time.monotonic()
            ann.close_tab()
            cid.close_tab()
            bob.wait_visible("#offline", timeout=12)
            assert bob.js("return document.getElementById('live').disabled")
            wait_for(lambda: dan.seats().get("Ann") == "away" and dan.seats().get("Bob") == "away",
                     "the facilitator and Bob away")
            wait_for(lambda: not bob.visible("#offline"), "Bob's page back online",
                     timeout=CUT_SECONDS + 12)
            bob.wait_text("#item-title", "Search box")
            assert time.monotonic() - cut_at >= CUT_SECONDS - 1
            assert not bob.js("return document.getElementById('live').disabled")
            wait_for(lambda: dan.seats().get("Bob") not in (None, "away"), "Bob back at the table")
            wait_for(lambda: "Cid" not in dan.seats(), "Cid's seat gone after the grace",
                     timeout=GRACE_MS / 1000 + 10)
            assert dan.seats().get("Ann") == "away" and dan.text("#game-title") == "Sprint 12"
            ann = Page(drivers[0], base + "/", new_tab=True)
            ann.wait_text("#leave", "End game")
            assert ann.visible("#controls")
            cid = Page(drivers[2], base + "/", new_tab=True)
            cid.wait_text("#join-button", "Join Sprint 12")
            cid.type_into("#name", "Cid")
            cid.click("#join-button")
            cid.wait_text("#item-title", "Search box")

            # The countdown opens the cards at zero.
            ann.type_into("#countdown-custom", "6")
            ann.click("#countdown-start")
            for page in (cid, dan, eve):
                page.wait_visible("#countdown")
            cid.click('#deck [data-card="3"]')
            dan.click('#deck [data-card="5"]')
            for page in (ann, bob, cid, dan, eve):
                wait_for(lambda: page.cards() == [("Cid", "3"), ("Dan", "5")], "the cards the countdown opened")
            assert not eve.visible("#countdown")
            proposed = ann.el("#estimate-card").get_attribute("value")
            ann.click("#estimate")
            eve.wait_text("#estimate-shown", "Final estimate: " + proposed)

            # The agenda's last item: everyone agrees.
            ann.click("#next")
            for page in (ann, bob, cid, dan):
                page.wait_text("#item-title", "Checkout")
                page.click('#deck [data-card="8"]')
            assert native.request(4)["code"] == 0
            wait_for(lambda: native.codes().count(5) == 3, "the third openCards")
            assert native.request(8, {"player_name": "Nat", "symbol": "8"})["code"] == 0
            for page in (ann, eve):
                page.wait_text("#result-body .consensus-banner", "Consensus: 8")
            ann.click("#estimate")
            eve.wait_text("#estimate-shown", "Final estimate: 8")
            ann.wait_text("#next", "Quick round (Item 5)")
            if shots:
                eve.dark(True)
                eve.d.save_screenshot(os.path.join(shots, "web-watch-dark.png"))
                ann.dark(True)
                ann.js("window.scrollTo(0, 0)")
                ann.d.save_screenshot(os.path.join(shots, "web-table-dark.png"))
                ann.dark(False)
                eve.dark(False)
            check_contrast(eve, "#join-link", "watch page")

            history = Page(drivers[2], base + "/history", new_tab=True)
            check_history(history, base, shots, {"Login page": ["8", None], "Search box": [proposed],
                                                 "Checkout": ["8"]})

            # The facilitator ends the game (after a confirmation); every page says so, the
            # server exits, and once it runs again the pages offer the next game.
            ann.click("#leave")
            ann.confirm()
            ann.wait_text("#ended-text", "You ended the game. The server is closing.")
            for page in (bob, cid, dan):
                page.wait_text("#ended-text", "The game has ended: the facilitator closed the table.")
            assert process.wait(timeout=10) == 0
            process, (game_port, _) = start_server(binary, home, web_port)
            for page in (ann, bob, dan):
                page.wait_text("#next-game", "Start the next game", timeout=20)
                wait_for(lambda: page.el("#next-game").is_enabled(), "the next game offered")
            eve.wait_text("#item-title", "No game is open")
            dan.click("#next-game")
            dan.wait_text("#join-button", "Start a game")
            for page in (ann, bob, cid, dan, eve, history):
                assert not page.script_errors(), page.script_errors()

            db = sqlite3.connect(os.path.join(home, ".Pointlane", "Pointlane.sqlite"))
            games = db.execute("SELECT id, name, admin FROM Game").fetchall()
            assert [(g[1], g[2]) for g in games] == [("Sprint 12", "Ann")], games
            deals = db.execute("SELECT name FROM Deal WHERE gameId = ? ORDER BY id", (games[0][0],)).fetchall()
            assert [d[0] for d in deals] == ["Login page", "Login page", "Search box", "Checkout"], deals
            print("browser session passed in %.0f s: 4 browsers (one a phone), 1 native client, a watcher, "
                  "4 items, a network cut, a server restart" % (time.monotonic() - started))
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
