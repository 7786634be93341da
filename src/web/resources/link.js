// The page's one WebSocket to the table, kept open for as long as the page is: when it drops,
// the page tries again with a growing pause (at most a few seconds), and a page that hears
// nothing for a while (a network that swallows everything) starts over on its own.

const DELAYS_MS = [300, 1000, 2000, 3000];
const PING_MS = 5000;
const SILENCE_MS = 12000;

export class Link {
  // handlers: opened(), message(object), online(bool)
  constructor(handlers) {
    this.handlers = handlers;
    this.socket = null;
    this.attempt = 0;
    this.stopped = false;
    this.timer = null;
    this.lastHeard = 0;
    this.online = false;
    setInterval(() => this.heartbeat(), PING_MS);
    // A laptop that wakes up or a network that comes back: try at once.
    window.addEventListener('online', () => this.retryNow());
    document.addEventListener('visibilitychange', () => {
      if (document.visibilityState === 'visible') this.retryNow();
    });
  }

  start() {
    this.stopped = false;
    this.connect();
  }

  // No more tries until start() (another tab has taken this page's seat).
  stop() {
    this.stopped = true;
    clearTimeout(this.timer);
    this.drop();
    this.setOnline(false);
  }

  send(message) {
    if (!this.socket || this.socket.readyState !== WebSocket.OPEN) return false;
    this.socket.send(JSON.stringify(message));
    return true;
  }

  connect() {
    clearTimeout(this.timer);
    this.drop();
    const scheme = location.protocol === 'https:' ? 'wss' : 'ws';
    const socket = new WebSocket(`${scheme}://${location.host}/socket`);
    this.socket = socket;
    socket.addEventListener('open', () => {
      if (socket !== this.socket) return;
      this.attempt = 0;
      this.lastHeard = Date.now();
      this.setOnline(true);
      this.handlers.opened();
    });
    socket.addEventListener('message', (event) => {
      if (socket !== this.socket) return;
      this.lastHeard = Date.now();
      let message;
      try {
        message = JSON.parse(event.data);
      } catch {
        return;
      }
      if (message.type !== 'pong') this.handlers.message(message);
    });
    socket.addEventListener('close', () => {
      if (socket !== this.socket) return;
      this.socket = null;
      this.setOnline(false);
      this.later();
    });
  }

  later() {
    if (this.stopped) return;
    const delay = DELAYS_MS[Math.min(this.attempt, DELAYS_MS.length - 1)];
    this.attempt += 1;
    clearTimeout(this.timer);
    this.timer = setTimeout(() => this.connect(), delay);
  }

  retryNow() {
    if (!this.stopped && !this.online) {
      this.attempt = 0;
      this.connect();
    }
  }

  heartbeat() {
    if (this.stopped || !this.socket || this.socket.readyState !== WebSocket.OPEN) return;
    if (Date.now() - this.lastHeard > SILENCE_MS) {
      // Nothing came back: the connection is dead even if the browser hasn't noticed.
      this.drop();
      this.setOnline(false);
      this.later();
      return;
    }
    this.send({type: 'ping'});
  }

  drop() {
    const socket = this.socket;
    this.socket = null;
    if (socket) {
      try {
        socket.close();
      } catch {
        // already closing
      }
    }
  }

  setOnline(online) {
    if (online !== this.online) {
      this.online = online;
      this.handlers.online(online);
    }
  }
}
