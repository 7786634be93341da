// Drawing the table, shared by the table page and the watch page. Everything drawn here comes
// from the server's table message: the seats, the item, the opened cards and the statistics as
// the server computed them. Text from the server is only ever set as text, never as markup.

export function element(tag, className, text) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined && text !== null) node.textContent = text;
  return node;
}

// At most two decimals, without trailing zeros: 1.25, 5, 5.33.
export function formatNumber(value) {
  return value === null || value === undefined ? '\u2013' : String(Number(value.toFixed(2)));
}

export function cardFace(card) {
  return card === 'coffee' ? '\u2615' : card;
}

export function cardLabel(card) {
  return card === 'coffee' ? 'coffee break' : card;
}

export function plural(count, one, many) {
  return `${count} ${count === 1 ? one : many}`;
}

// The seats around the table: name, facilitator, native client, and thinking / played / away.
export function renderSeats(list, table, you) {
  const opened = table.current && table.current.opened;
  list.replaceChildren(...table.seats.map((seat) => {
    const item = element('li', 'seat');
    let state = 'waiting';
    let stateText = 'waiting';
    if (!seat.present) {
      state = 'away';
      stateText = 'away';
    } else if (table.current && (seat.played || opened)) {
      state = seat.played ? 'played' : 'waiting';
      stateText = seat.played ? 'played' : 'did not play';
    } else if (table.current) {
      state = 'thinking';
      stateText = 'thinking';
    }
    item.dataset.state = state;
    item.dataset.name = seat.name;
    const token = element('span', 'seat-token', seat.played ? '\u2713' : '');
    token.setAttribute('aria-hidden', 'true');
    const name = element('span', 'seat-name', seat.name);
    const badges = element('span', 'seat-badges');
    if (seat.name === you) badges.append(element('span', 'badge you', 'you'));
    if (seat.facilitator) badges.append(element('span', 'badge facilitator', 'facilitator'));
    if (!seat.web) badges.append(element('span', 'badge native', 'app'));
    const status = element('span', 'seat-state', stateText);
    item.append(token, name, badges, status);
    return item;
  }));
}

export function itemStatus(table) {
  const current = table.current;
  if (!current) return table.phase === 'open' ? 'Waiting for the first item.' : '';
  if (current.opened) return `Cards are open: ${plural(current.cards.length, 'card', 'cards')}.`;
  return `${table.played} of ${plural(table.seats.length, 'player', 'players')} played.`;
}

function statistic(list, name, label, value) {
  const pair = element('div');
  const term = element('dt', null, label);
  const definition = element('dd', null, value);
  definition.dataset.stat = name;
  pair.append(term, definition);
  list.append(pair);
}

// The result of an opened item: consensus first, then the cards grouped by value with a bar
// each, the statistics, and who played what.
export function renderResult(container, item, deck) {
  const s = item.statistics;
  const parts = [];
  if (s.consensus) {
    parts.push(element('p', 'consensus-banner', `Consensus: ${cardLabel(s.distribution[0].card)}`));
  } else if (s.count > 1) {
    parts.push(element('p', 'no-consensus', 'No consensus.'));
  } else if (s.count === 0) {
    parts.push(element('p', 'no-consensus', 'No cards were played.'));
  }
  const most = s.distribution.reduce((max, entry) => Math.max(max, entry.count), 0);
  const bars = element('ol', 'distribution');
  bars.setAttribute('aria-label', 'Cards by value');
  for (const entry of s.distribution) {
    const row = element('li', 'bar-row');
    row.dataset.card = entry.card;
    const card = element('span', 'bar-card', cardFace(entry.card));
    card.title = cardLabel(entry.card);
    const track = element('span', 'bar-track');
    const fill = element('span', 'bar-fill');
    fill.style.width = `${Math.round((100 * entry.count) / Math.max(most, 1))}%`;
    track.append(fill);
    const count = element('span', 'bar-count', String(entry.count));
    row.setAttribute('aria-label', `${cardLabel(entry.card)}: ${plural(entry.count, 'card', 'cards')}`);
    row.append(card, track, count);
    bars.append(row);
  }
  parts.push(bars);
  const stats = element('dl', 'stats');
  statistic(stats, 'count', 'Cards', String(s.count));
  if (deck.numbers || s.numericCount > 0) {
    statistic(stats, 'average', 'Average', formatNumber(s.average));
    statistic(stats, 'median', 'Median', formatNumber(s.median));
    statistic(stats, 'minimum', 'Min', formatNumber(s.minimum));
    statistic(stats, 'maximum', 'Max', formatNumber(s.maximum));
  }
  parts.push(stats);
  const cards = element('ul', 'opened-cards');
  for (const played of item.cards) {
    const entry = element('li', 'opened-card');
    entry.dataset.card = played.card;
    entry.dataset.name = played.name;
    const face = element('span', 'card-face', cardFace(played.card));
    face.title = cardLabel(played.card);
    entry.append(face, element('span', 'who', played.name));
    cards.append(entry);
  }
  parts.push(cards);
  container.replaceChildren(...parts);
}

// This game's earlier items, newest first, with their final estimates.
export function renderItems(list, items) {
  list.replaceChildren(...[...items].reverse().map((item) => {
    const entry = element('li', 'earlier-item');
    entry.dataset.number = item.number;
    entry.append(element('span', 'earlier-title', item.title));
    let summary = item.opened ? plural(item.count, 'card', 'cards') : 'not opened';
    if (item.consensus) summary += ', consensus';
    entry.append(element('span', 'earlier-summary', summary));
    if (item.estimate !== null) {
      entry.append(element('span', 'estimate-chip', cardFace(item.estimate)));
    }
    return entry;
  }));
}

// The countdown every page shows, counted down by the page from the server's clock.
export class Countdown {
  constructor(node) {
    this.node = node;
    this.endsAt = null;  // in this page's clock (performance.now())
    setInterval(() => this.tick(), 250);
  }

  update(endsAtMs, serverNowMs, active) {
    this.endsAt = active && endsAtMs ? performance.now() + (endsAtMs - serverNowMs) : null;
    this.tick();
  }

  tick() {
    if (this.endsAt === null) {
      this.node.hidden = true;
      return;
    }
    const left = Math.max(0, Math.ceil((this.endsAt - performance.now()) / 1000));
    const text = `${Math.floor(left / 60)}:${String(left % 60).padStart(2, '0')}`;
    this.node.hidden = false;
    if (this.node.dataset.left !== String(left)) {
      this.node.dataset.left = String(left);
      this.node.querySelector('.countdown-time').textContent = text;
      this.node.classList.toggle('ending', left <= 10);
    }
  }
}

// What a screen reader should hear between two tables: a new item, each play, the reveal.
export function announcements(before, after) {
  const said = [];
  if (!after || after.phase !== 'open') return said;
  const was = before && before.phase === 'open' ? before : null;
  const item = after.current;
  const wasItem = was ? was.current : null;
  if (item && (!wasItem || wasItem.number !== item.number)) {
    said.push(`New item: ${item.title}.`);
  } else if (item && wasItem && !item.opened) {
    for (const seat of after.seats) {
      const earlier = was.seats.find((s) => s.name === seat.name);
      if (seat.played && earlier && !earlier.played) said.push(`${seat.name} played.`);
    }
  }
  if (item && item.opened && (!wasItem || wasItem.number !== item.number || !wasItem.opened)) {
    const s = item.statistics;
    let text = `Cards are open: ${plural(s.count, 'card', 'cards')}.`;
    if (s.consensus) text += ` Consensus on ${cardLabel(s.distribution[0].card)}.`;
    if (s.average !== null) text += ` Average ${formatNumber(s.average)}.`;
    said.push(text);
  }
  if (was) {
    for (const seat of after.seats) {
      if (!was.seats.some((s) => s.name === seat.name)) said.push(`${seat.name} sat down.`);
    }
    for (const seat of was.seats) {
      if (!after.seats.some((s) => s.name === seat.name)) said.push(`${seat.name} left.`);
    }
  }
  return said;
}

// Says the texts through a polite live region.
export function announce(region, texts) {
  if (texts.length === 0) return;
  region.textContent = texts.join(' ');
}

// The link beside the join code: the address this page was reached by, as the code holds it,
// unless that is this machine's own (loopback) address, which a phone can't reach: then the
// server's link.
export function joinLink(link) {
  const host = location.hostname;
  const loopback = host === 'localhost' || host === '[::1]' || host.startsWith('127.');
  return loopback && link ? link : `${location.origin}/`;
}
