// The stored games, read from /history.json and asked for again every few seconds (with the
// last ETag, so an unchanged history costs nothing), so that new deals and cards show up while
// a game is played. Text from the server is only ever set as text, never as markup.

const REFRESH_MS = 5000;

const gamesList = document.getElementById('games');
const emptyNote = document.getElementById('empty');
const statusLine = document.getElementById('status');

// Games the reader opened, kept open across refreshes; the newest game starts open.
const openGames = new Set();
let lastText = null;
let lastTag = null;
let firstRender = true;

function element(tag, className, text) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined) node.textContent = text;
  return node;
}

// At most two decimals, without trailing zeros: 1.25, 5, 5.33.
function number(value) {
  return value === null || value === undefined ? '–' : String(Number(value.toFixed(2)));
}

function formatDate(iso) {
  const date = new Date(iso);
  return Number.isNaN(date.getTime()) ? iso : date.toLocaleString();
}

function downloadLinks(gameId) {
  const nav = element('span', 'downloads');
  for (const format of ['csv', 'json']) {
    const link = element('a', `download-${format}`, format.toUpperCase());
    link.href = `/history.${format}?game=${encodeURIComponent(gameId)}`;
    link.download = `pointlane-game-${gameId}.${format}`;
    nav.append(link);
  }
  return nav;
}

function statisticsList(statistics) {
  const list = element('dl', 'statistics');
  const entries = [
    ['Cards', String(statistics.count), 'count'],
    ['Average', number(statistics.average), 'average'],
    ['Median', number(statistics.median), 'median'],
    ['Min', number(statistics.minimum), 'minimum'],
    ['Max', number(statistics.maximum), 'maximum'],
  ];
  for (const [label, value, name] of entries) {
    const pair = element('div');
    pair.append(element('dt', null, label), element('dd', name, value));
    list.append(pair);
  }
  if (statistics.consensus) {
    const pair = element('div');
    pair.append(element('dd', 'consensus', 'Consensus'));
    list.append(pair);
  }
  return list;
}

function dealItem(deal) {
  const item = element('li', 'deal');
  item.dataset.dealId = deal.id;
  item.append(element('div', 'deal-name', deal.name));
  if (deal.elections.length === 0) {
    item.append(element('p', 'no-cards', 'No cards yet.'));
  } else {
    const cards = element('ul', 'cards');
    for (const election of deal.elections) {
      const card = element('li', 'card-chip');
      card.append(element('span', 'card-player', election.player),
                  element('span', 'card-symbol', election.card));
      cards.append(card);
    }
    item.append(cards);
  }
  item.append(statisticsList(deal.statistics));
  if (deal.estimate !== undefined && deal.estimate !== null) {
    item.append(element('p', 'deal-estimate', `Final estimate: ${deal.estimate}`));
  }
  return item;
}

function gameItem(game) {
  const item = element('li');
  const details = element('details', 'game');
  details.dataset.gameId = game.id;
  details.open = openGames.has(game.id);
  details.addEventListener('toggle', () => {
    if (details.open) openGames.add(game.id); else openGames.delete(game.id);
  });
  const summary = element('summary');
  const { deals, consensusDeals } = game.statistics;
  summary.append(
    element('span', 'game-name', game.name),
    element('time', 'game-date', formatDate(game.date)),
    element('span', 'game-admin', game.administrator),
    element('span', 'game-summary',
            `${deals} ${deals === 1 ? 'deal' : 'deals'}, ${consensusDeals} with consensus`),
    downloadLinks(game.id));
  summary.querySelector('time').dateTime = game.date;
  details.append(summary);
  const list = element('ol', 'deals');
  const byNewest = [...game.deals].sort((a, b) => b.id - a.id);
  for (const deal of byNewest) list.append(dealItem(deal));
  if (byNewest.length === 0) list.append(element('li', 'no-deals', 'No deals.'));
  details.append(list);
  item.append(details);
  return item;
}

function render(history) {
  const games = [...history.games].sort((a, b) => b.id - a.id);
  if (firstRender && games.length > 0) {
    openGames.add(games[0].id);
    firstRender = false;
  }
  gamesList.replaceChildren(...games.map(gameItem));
  emptyNote.hidden = games.length !== 0;
}

async function refresh() {
  try {
    // The server tags the history with its version: asking with the last tag costs nothing
    // (304) while nothing was stored since.
    const headers = lastTag ? { 'If-None-Match': lastTag } : {};
    const response = await fetch('/history.json', { cache: 'no-store', headers });
    if (response.status !== 304) {
      if (!response.ok) throw new Error(`the server answered ${response.status}`);
      const text = await response.text();
      // Rebuilding only on a change keeps the reader's place and selection.
      if (text !== lastText) {
        render(JSON.parse(text));
        lastText = text;
      }
      lastTag = response.headers.get('ETag');
    }
    statusLine.textContent = `Updated ${new Date().toLocaleTimeString()}`;
    statusLine.classList.remove('error');
  } catch (error) {
    statusLine.textContent = `Can't read the history: ${error.message}`;
    statusLine.classList.add('error');
  } finally {
    setTimeout(refresh, REFRESH_MS);
  }
}

refresh();
