// The web table's page: one WebSocket to the server it was loaded from, messages as JSON.
import {DECK, statistics} from './stats.js';

const $ = (id) => document.getElementById(id);
const RETRY_MS = 1000;
const RETRIES = 8;

let socket = null;
let retries = 0;
let ended = false;
let lobby = {open: false, game: null};
let table = null;

function tabId() {
  let id = sessionStorage.getItem('pointlane.tab');
  if (!id) {
    const bytes = new Uint8Array(16);
    crypto.getRandomValues(bytes);
    id = Array.from(bytes, (b) => b.toString(16).padStart(2, '0')).join('');
    sessionStorage.setItem('pointlane.tab', id);
  }
  return id;
}

function show(section) {
  for (const id of ['join', 'table', 'ended']) {
    $(id).hidden = id !== section;
  }
  $('connecting').hidden = section !== null;
}

function showError(text) {
  $('error').textContent = text;
  $('error').hidden = !text;
}

function send(message) {
  if (socket && socket.readyState === WebSocket.OPEN) {
    socket.send(JSON.stringify(message));
  } else {
    showError('Not connected to the table; trying again.');
  }
}

function renderLobby() {
  const open = lobby.open;
  $('game-field').hidden = open;
  $('game').required = !open;
  $('join-button').textContent = open ? `Join ${lobby.game || 'the game'}` : 'Start a game';
  $('game-title').textContent = open ? lobby.game || '' : '';
  show('join');
}

function renderTable() {
  const t = table;
  $('game-title').textContent = t.game;
  const players = $('players');
  players.replaceChildren(...t.players.map((name) => {
    const li = document.createElement('li');
    li.textContent = name === t.you ? `${name} (you)` : name;
    return li;
  }));
  $('item').textContent = t.item === null ? 'No item yet.' : t.item || '(untitled)';
  $('played').textContent = String(t.played);
  $('played-label').textContent = t.played === 1 ? 'card played' : 'cards played';
  for (const button of $('deck').children) {
    const picked = button.dataset.card === t.pick;
    button.setAttribute('aria-pressed', picked ? 'true' : 'false');
    button.disabled = t.opened || t.item === null;
  }
  $('open').disabled = t.opened || t.item === null;
  $('results').hidden = !t.opened;
  $('cards').replaceChildren(...t.cards.map((c) => {
    const li = document.createElement('li');
    const name = document.createElement('span');
    name.className = 'who';
    name.textContent = c.name;
    const card = document.createElement('span');
    card.className = 'card-face';
    card.textContent = c.card === 'coffee' ? '\u2615' : c.card;
    card.title = c.card;
    li.dataset.card = c.card;
    li.append(name, card);
    return li;
  }));
  const s = statistics(t.cards.map((c) => c.card));
  $('average').textContent = s.average;
  $('median').textContent = s.median;
  $('consensus').textContent = s.consensus;
  $('leave').textContent = t.admin ? 'End game' : 'Leave';
  show('table');
}

function end(text) {
  ended = true;
  $('ended-text').textContent = text;
  showError('');
  show('ended');
  if (socket) {
    socket.close();
  }
}

function received(event) {
  let message;
  try {
    message = JSON.parse(event.data);
  } catch {
    return;
  }
  switch (message.type) {
    case 'lobby':
      lobby = message;
      table = null;
      renderLobby();
      break;
    case 'table':
      table = message;
      showError('');
      renderTable();
      break;
    case 'refused':
      send({type: 'hello', tab: tabId()});
      break;
    case 'error':
      showError(message.text);
      break;
    case 'ended':
      end(message.text);
      break;
    default:
      break;
  }
}

function connect() {
  const scheme = location.protocol === 'https:' ? 'wss' : 'ws';
  socket = new WebSocket(`${scheme}://${location.host}/socket`);
  socket.addEventListener('open', () => {
    retries = 0;
    socket.send(JSON.stringify({type: 'hello', tab: tabId()}));
  });
  socket.addEventListener('message', received);
  socket.addEventListener('close', (event) => {
    socket = null;
    if (ended) {
      return;
    }
    if (event.code === 1009) {
      showError('That was too long to send.');
    } else if (event.code === 1008) {
      showError(`The table closed this page's connection (${event.reason || 'policy'}).`);
    }
    retries += 1;
    if (retries > RETRIES) {
      end('The server is no longer running.');
      return;
    }
    $('connecting').hidden = false;
    setTimeout(connect, RETRY_MS);
  });
}

function buildDeck() {
  const deck = $('deck');
  for (const card of DECK) {
    const button = document.createElement('button');
    button.type = 'button';
    button.className = 'card';
    button.dataset.card = card;
    button.textContent = card === 'coffee' ? '\u2615' : card;
    button.setAttribute('aria-label', card === 'coffee' ? 'coffee break' : `card ${card}`);
    button.setAttribute('aria-pressed', 'false');
    button.addEventListener('click', () => send({type: 'play', card}));
    deck.append(button);
  }
}

function wire() {
  $('join-form').addEventListener('submit', (event) => {
    event.preventDefault();
    showError('');
    const name = $('name').value;
    if (lobby.open) {
      send({type: 'join', name});
    } else {
      send({type: 'start', name, game: $('game').value});
    }
  });
  $('deal-form').addEventListener('submit', (event) => {
    event.preventDefault();
    send({type: 'deal', title: $('title').value});
    $('title').value = '';
  });
  $('open').addEventListener('click', () => send({type: 'open'}));
  $('leave').addEventListener('click', () => send({type: 'leave'}));
}

buildDeck();
wire();
connect();
