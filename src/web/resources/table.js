// The table page: joins, plays and runs the table over one WebSocket (link.js) and draws what
// the server sends (render.js). The page keeps its seat key in localStorage: the same browser
// gets its seat back from a new tab, after a reload or after it was away.
import {Link} from './link.js';
import {
  Countdown, announce, announcements, cardFace, cardLabel, element, itemStatus, joinLink, plural,
  renderItems, renderResult, renderSeats,
} from './render.js';

const $ = (id) => document.getElementById(id);
const SEAT_KEY = 'pointlane.seat';
const NAME_KEY = 'pointlane.name';
const CARD_KEYS = '1234567890qwertyuiopasdf';
const PHONE = window.matchMedia('(max-width: 40rem)');

const state = {
  me: null,
  table: null,
  decks: [],
  link: '',
  seatedGame: null,  // the game this page had a seat in
  endedText: null,   // set: the page says the game (or the seat) has ended
  replaced: false,
  online: false,
  deckShown: '',
  focusNext: null,   // what to focus once the next table is drawn
};

function seatKey() {
  let key = null;
  try {
    key = localStorage.getItem(SEAT_KEY);
  } catch {
    // storage blocked: a key for this page only
  }
  if (!key || !/^[0-9a-f]{32}$/.test(key)) {
    const bytes = new Uint8Array(16);
    crypto.getRandomValues(bytes);
    key = Array.from(bytes, (b) => b.toString(16).padStart(2, '0')).join('');
    try {
      localStorage.setItem(SEAT_KEY, key);
    } catch {
      // see above
    }
  }
  return key;
}

const link = new Link({
  opened: () => link.send({type: 'hello', seat: seatKey()}),
  message: received,
  online: (online) => {
    state.online = online;
    $('offline').hidden = online || state.replaced || state.table === null && !state.wasOnline;
    if (online) state.wasOnline = true;
    $('live').disabled = !online;
    if (!online && state.view === 'ended') renderEnded();
  },
});

function send(message) {
  showError('');
  if (!link.send(message)) showError('Not connected to the table; trying again.');
}

function showError(text) {
  $('error').textContent = text;
  $('error').hidden = !text;
  $('full-note').hidden = text !== 'Five players are already at the table.';
}

function show(view) {
  state.view = view;
  for (const id of ['join', 'table', 'ended', 'replaced']) $(id).hidden = id !== view;
  $('connecting').hidden = view !== null;
}

function focusSoon(id) {
  state.focusNext = id;
}

function applyFocus() {
  const id = state.focusNext;
  if (!id) return;
  const target = id === 'deck' ? $('deck').querySelector('button:not([disabled])') : $(id);
  if (target && target.offsetParent !== null && !target.disabled) {
    state.focusNext = null;
    target.focus({preventScroll: id === 'deck'});
  }
}

function received(message) {
  switch (message.type) {
    case 'welcome':
      state.decks = message.decks || [];
      state.link = message.link || '';
      buildDeckChoice();
      break;
    case 'table': {
      const before = state.table;
      state.me = message.me;
      state.table = message.table;
      state.nowMs = message.nowMs;
      render(before);
      break;
    }
    case 'me':
      state.me = message.me;
      if (state.table) render(state.table);
      break;
    case 'ended':
      state.endedText = message.text;
      state.seatedGame = null;
      state.me = {seat: 'none'};  // the seat is gone, whatever the last table said
      focusSoon('ended-heading');
      if (state.table) render(state.table);
      break;
    case 'replaced':
      state.replaced = true;
      link.stop();
      $('offline').hidden = true;
      show('replaced');
      $('replaced-heading').focus();
      break;
    case 'error':
      showError(message.text);
      break;
    default:
      break;
  }
}

function render(before) {
  const {me, table} = state;
  $('saving').hidden = !table.savingFailed;
  $('game-title').textContent = table.phase === 'open' ? table.game : '';
  if (state.replaced) return;
  if (me.seat === 'seated') {
    if (state.view !== 'table') focusSoon(me.controls && !table.current ? 'title' : 'deck');
    state.seatedGame = table.game;
    state.endedText = null;
    show('table');
    renderTable(before);
  } else {
    if (state.seatedGame !== null && me.seat === 'none' && state.endedText === null) {
      // The seat went without a word: the server started again, or the seat was given up
      // while this page was away.
      state.endedText = table.phase === 'open' && table.game === state.seatedGame
        ? 'Your seat was given up while this page was away. Join again to play on.'
        : table.phase === 'closed' ? 'The server started again, so the game it held is over.'
          : 'The game has ended.';
      state.seatedGame = null;
      focusSoon('ended-heading');
    }
    if (state.endedText !== null) {
      show('ended');
      renderEnded();
    } else {
      if (state.view !== 'join') focusSoon('name');
      show('join');
      renderLobby();
    }
  }
  applyFocus();
}

function renderLobby() {
  const {me, table} = state;
  const open = table.phase === 'open';
  const joining = me.seat === 'joining';
  $('start-fields').hidden = open;
  $('game').required = !open && table.phase === 'closed';
  renderSeats($('lobby-seats'), table, null);
  $('lobby-seats').hidden = !open;
  let text;
  if (open) {
    text = table.free > 0
      ? `${table.game} is open: ${plural(table.free, 'seat', 'seats')} free.`
      : `${table.game} is open, and every seat is taken.`;
  } else if (table.phase === 'ended') {
    text = `${table.game} has ended. The table opens again when the server starts again.`;
  } else {
    text = 'No game is open yet. Start one and you run the table as its facilitator.';
  }
  $('lobby-state').textContent = text;
  const button = $('join-button');
  button.textContent = joining ? 'Joining\u2026' : open ? `Join ${table.game}` : 'Start a game';
  button.disabled = joining || table.phase === 'ended' || (open && table.free === 0);
  $('full-note').hidden = !(open && table.free === 0) &&
    $('error').textContent !== 'Five players are already at the table.';
}

function renderEnded() {
  const {table} = state;
  $('ended-heading').textContent = table.phase !== 'open' ? 'The game has ended'
    : state.endedText === 'You left the table.' ? 'You left the table' : 'You are no longer at the table';
  $('ended-text').textContent = state.endedText;
  const button = $('next-game');
  if (!state.online) {
    $('next-state').textContent = 'The server is not answering; this page keeps trying.';
    button.textContent = 'Start the next game';
    button.disabled = true;
  } else if (table.phase === 'open') {
    $('next-state').textContent = `${table.game} is open.`;
    button.textContent = `Join ${table.game}`;
    button.disabled = false;
  } else if (table.phase === 'closed') {
    $('next-state').textContent = 'The table is ready for the next game.';
    button.textContent = 'Start the next game';
    button.disabled = false;
  } else {
    $('next-state').textContent = 'Waiting for the server to start again\u2026';
    button.textContent = 'Start the next game';
    button.disabled = true;
  }
}

function facilitatorIsWeb(table) {
  return table.seats.some((seat) => seat.facilitator && seat.web);
}

function renderTable(before) {
  const {me, table} = state;
  const current = table.current;
  const opened = Boolean(current && current.opened);
  const wasOpened = Boolean(before && before.current && current &&
    before.current.number === current.number && before.current.opened);

  $('item-number').textContent = current ? `Item ${current.number}` : '';
  $('item-title').textContent = current ? current.title : 'No item yet';
  $('item-status').textContent = current ? itemStatus(table)
    : me.controls ? 'Put up the first item below.' : 'Waiting for the first item.';
  countdown.update(table.countdownEndsAtMs, state.nowMs, Boolean(current && !opened));

  // The result comes first once the cards are open.
  $('result').hidden = !opened;
  if (opened) {
    renderResult($('result-body'), current, table.deck);
    renderEstimate(current, me, table);
    if (!wasOpened && PHONE.matches) {
      $('result').scrollIntoView({block: 'start', behavior: 'smooth'});
    }
  }

  renderSeats($('seats'), table, me.name);
  renderControls(table, me);
  renderDeck(table, me);
  renderItems($('items'), table.items);
  $('no-items').hidden = table.items.length > 0;
  $('leave').textContent = me.facilitator ? 'End game' : 'Leave';
  if (before && before.phase === 'open') announce($('announce'), announcements(before, table));
}

function renderEstimate(item, me, table) {
  const form = $('estimate-form');
  form.hidden = !me.controls;
  const shown = $('estimate-shown');
  shown.hidden = item.estimate === null;
  shown.textContent = item.estimate === null ? '' : `Final estimate: ${cardLabel(item.estimate)}`;
  if (!me.controls) return;
  const select = $('estimate-card');
  const wanted = item.estimate !== null ? item.estimate : item.proposed;
  const key = table.deck.cards.join('\u0000') + '\u0001' + item.number + '\u0001' + wanted;
  if (select.dataset.key !== key) {
    select.dataset.key = key;
    select.replaceChildren(...table.deck.cards.map((card) => {
      const option = element('option', null, cardLabel(card));
      option.value = card;
      option.selected = card === wanted;
      return option;
    }));
  }
  $('estimate').textContent = item.estimate === null ? 'Record estimate' : 'Change estimate';
}

function renderControls(table, me) {
  $('controls').hidden = !me.controls;
  if (!me.controls) return;
  const current = table.current;
  const opened = Boolean(current && current.opened);
  const nextTitle = table.agenda.length > 0 ? table.agenda[0] : null;
  $('next').textContent = nextTitle !== null ? `Next: ${nextTitle}` : `Quick round (${table.quickRound})`;
  $('open').disabled = !current || opened;
  $('revote').disabled = !current;
  $('countdown-stop').hidden = !table.countdownEndsAtMs;
  $('settings').hidden = !me.facilitator && facilitatorIsWeb(table);
  $('auto-reveal').checked = table.settings.autoReveal;
  $('everyone').checked = table.settings.everyoneControls;
  $('agenda-count').textContent = table.agenda.length === 0 ? 'no items'
    : `${plural(table.agenda.length, 'item', 'items')} to come`;
  $('agenda-list').replaceChildren(...table.agenda.map((title) => element('li', null, title)));
  $('join-code').hidden = !me.facilitator;
  const address = joinLink(state.link);
  $('join-link').textContent = address;
  $('join-link').href = address;
}

function renderDeck(table, me) {
  const deck = $('deck');
  const shown = table.deck.cards.join('\u0000');
  if (state.deckShown !== shown) {
    state.deckShown = shown;
    // On a phone the cards fill as few rows as they can, each row as full as the others.
    const count = table.deck.cards.length;
    deck.style.setProperty('--columns', String(Math.ceil(count / Math.ceil(count / 7))));
    deck.replaceChildren(...table.deck.cards.map((card, index) => {
      const button = element('button', 'card');
      button.type = 'button';
      button.dataset.card = card;
      button.append(element('span', 'card-text', cardFace(card)));
      if (index < CARD_KEYS.length) {
        const key = element('kbd', 'card-key', CARD_KEYS[index]);
        key.setAttribute('aria-hidden', 'true');
        button.append(key);
        button.setAttribute('aria-keyshortcuts', CARD_KEYS[index]);
      }
      button.setAttribute('aria-label', `card ${cardLabel(card)}`);
      button.addEventListener('click', () => play(card));
      return button;
    }));
  }
  const current = table.current;
  const playable = Boolean(current && !current.opened);
  for (const button of deck.children) {
    button.setAttribute('aria-pressed', button.dataset.card === me.pick ? 'true' : 'false');
    button.disabled = !playable;
  }
  let note = '';
  if (!current) note = 'waiting for an item';
  else if (current.opened) note = me.pick ? `you played ${cardLabel(me.pick)}` : 'cards are open';
  else if (me.played) note = `you played ${cardLabel(me.pick)}; change it until the cards open`;
  else note = 'pick one (keys work too)';
  $('deck-note').textContent = `\u2013 ${note}`;
}

function play(card) {
  send({type: 'play', card});
}

// A promise of the player's answer to a yes/no question.
function confirmed(text, ok) {
  const dialog = $('confirm');
  $('confirm-text').textContent = text;
  $('confirm-ok').textContent = ok;
  dialog.returnValue = '';
  return new Promise((resolve) => {
    dialog.addEventListener('close', () => resolve(dialog.returnValue === 'ok'), {once: true});
    dialog.showModal();
  });
}

// Replacing an item while cards are being played on it asks first.
async function replaceAllowed(what) {
  const current = state.table && state.table.current;
  if (!current || current.opened || state.table.played === 0) return true;
  return confirmed(`${plural(state.table.played, 'card has', 'cards have')} been played on "${current.title}". ` +
    `${what}?`, what.startsWith('Vote') ? 'Vote again' : 'Replace it');
}

function deckChoice() {
  const chosen = document.querySelector('input[name="deck"]:checked');
  return chosen ? chosen.value : 'standard';
}

function buildDeckChoice() {
  const options = $('deck-options');
  const choices = [...state.decks, {id: 'custom', name: 'Custom', cards: []}];
  const previous = deckChoice();
  options.replaceChildren(...choices.map((deck) => {
    const label = element('label', 'deck-option');
    const input = element('input');
    input.type = 'radio';
    input.name = 'deck';
    input.value = deck.id;
    input.checked = deck.id === previous;
    input.addEventListener('change', () => {
      $('custom-cards').parentElement.hidden = deckChoice() !== 'custom';
    });
    const title = element('span', 'deck-name', deck.name);
    const cards = element('span', 'deck-cards',
      deck.id === 'custom' ? 'your own cards' : deck.cards.map(cardFace).join(' '));
    label.append(input, title, cards);
    return label;
  }));
  if (!document.querySelector('input[name="deck"]:checked')) {
    options.querySelector('input').checked = true;
  }
  $('custom-cards').parentElement.hidden = deckChoice() !== 'custom';
}

function wire() {
  try {
    $('name').value = localStorage.getItem(NAME_KEY) || '';
  } catch {
    // no storage: nothing to fill in
  }
  $('join-form').addEventListener('submit', (event) => {
    event.preventDefault();
    const name = $('name').value;
    try {
      localStorage.setItem(NAME_KEY, name.trim());
    } catch {
      // see above
    }
    if (state.table && state.table.phase === 'open') {
      send({type: 'join', name});
    } else {
      const deck = deckChoice();
      const message = {type: 'start', name, game: $('game').value, deck};
      if (deck === 'custom') {
        message.cards = $('custom-cards').value.split(',').map((c) => c.trim()).filter((c) => c);
      }
      send(message);
    }
  });
  $('next-game').addEventListener('click', () => {
    state.endedText = null;
    state.seatedGame = null;
    showError('');
    focusSoon('name');
    if (state.table) render(state.table);
  });
  $('take-back').addEventListener('click', () => {
    state.replaced = false;
    $('connecting').hidden = false;
    $('replaced').hidden = true;
    state.view = null;
    link.start();
  });
  $('deal-form').addEventListener('submit', async (event) => {
    event.preventDefault();
    const title = $('title').value;
    if (!title.trim()) {
      showError('Please enter a title.');
      $('title').focus();
      return;
    }
    if (!(await replaceAllowed('Replace it'))) return;
    send({type: 'deal', title});
    $('title').value = '';
    $('title').focus();
  });
  $('next').addEventListener('click', async () => {
    if (!(await replaceAllowed('Replace it'))) return;
    send({type: 'next'});
    focusSoon('deck');
  });
  $('revote').addEventListener('click', async () => {
    if (!(await replaceAllowed('Vote on it again from the start'))) return;
    send({type: 'revote'});
    focusSoon('deck');
  });
  $('open').addEventListener('click', () => {
    send({type: 'open'});
    focusSoon('result-heading');
  });
  $('estimate-form').addEventListener('submit', (event) => {
    event.preventDefault();
    send({type: 'estimate', item: state.table.current.number, card: $('estimate-card').value});
    $('next').focus();
  });
  for (const button of document.querySelectorAll('[data-seconds]')) {
    button.addEventListener('click', () => send({type: 'countdown', seconds: Number(button.dataset.seconds)}));
  }
  $('countdown-start').addEventListener('click', () => {
    const seconds = Number($('countdown-custom').value);
    if (!Number.isInteger(seconds) || seconds < 1 || seconds > 3600) {
      showError('A countdown lasts from 1 second to an hour (3600 seconds).');
      $('countdown-custom').focus();
      return;
    }
    send({type: 'countdown', seconds});
  });
  $('countdown-stop').addEventListener('click', () => send({type: 'countdown', seconds: 0}));
  for (const id of ['auto-reveal', 'everyone']) {
    $(id).addEventListener('change', () => send({
      type: 'settings', autoReveal: $('auto-reveal').checked, everyoneControls: $('everyone').checked,
    }));
  }
  $('agenda-set').addEventListener('click', () => {
    send({type: 'agenda', text: $('agenda-text').value, format: 'lines'});
    $('agenda-text').value = '';
    $('next').focus();
  });
  $('agenda-file').addEventListener('change', async () => {
    const file = $('agenda-file').files[0];
    if (!file) return;
    if (file.size > 60 * 1024) {
      showError('The agenda is too long: at most 60 KB.');
    } else {
      send({type: 'agenda', text: await file.text(), format: 'csv'});
    }
    $('agenda-file').value = '';
  });
  $('leave').addEventListener('click', async () => {
    if (state.me && state.me.facilitator) {
      const ok = await confirmed('End the game for everyone? Every seat is closed and the server stops.',
        'End game');
      if (!ok) return;
    }
    send({type: 'leave'});
  });
  document.addEventListener('keydown', (event) => {
    if (event.ctrlKey || event.metaKey || event.altKey || state.view !== 'table') return;
    const target = event.target;
    if (target instanceof HTMLInputElement || target instanceof HTMLTextAreaElement ||
        target instanceof HTMLSelectElement || $('confirm').open) return;
    const index = CARD_KEYS.indexOf(event.key.toLowerCase());
    const button = index >= 0 ? $('deck').children[index] : null;
    if (button && !button.disabled) {
      event.preventDefault();
      button.focus({preventScroll: true});
      button.click();
    }
  });
}

const countdown = new Countdown($('countdown'));
wire();
link.start();
