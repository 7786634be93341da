// The watch page: the table read-only, in large type, for a projector or for more people than
// seats. It takes no seat and sends nothing but its hello and pings.
import {Link} from './link.js';
import {
  Countdown, announce, announcements, cardLabel, itemStatus, joinLink, plural, renderResult,
  renderSeats,
} from './render.js';

const $ = (id) => document.getElementById(id);
let table = null;
let address = '';

const link = new Link({
  opened: () => link.send({type: 'watch'}),
  message: (message) => {
    if (message.type === 'welcome') {
      address = message.link || '';
    } else if (message.type === 'table') {
      const before = table;
      table = message.table;
      render(before, message.nowMs);
    }
  },
  online: (online) => {
    $('offline').hidden = online || table === null;
  },
});
const countdown = new Countdown($('countdown'));

function render(before, nowMs) {
  $('connecting').hidden = true;
  $('watch').hidden = false;
  $('saving').hidden = !table.savingFailed;
  const open = table.phase === 'open';
  const current = open ? table.current : null;
  const opened = Boolean(current && current.opened);
  $('game-title').textContent = open ? table.game : '';
  $('item-number').textContent = current ? `Item ${current.number}` : '';
  $('item-title').textContent = current ? current.title
    : open ? 'Waiting for the first item' : table.phase === 'ended' ? 'The game has ended' : 'No game is open';
  $('item-status').textContent = current ? itemStatus(table) : '';
  countdown.update(table.countdownEndsAtMs, nowMs, Boolean(current && !opened));
  $('result').hidden = !opened;
  if (opened) renderResult($('result-body'), current, table.deck);
  const estimate = current ? current.estimate : null;
  $('estimate-shown').hidden = estimate === null;
  $('estimate-shown').textContent = estimate === null ? '' : `Final estimate: ${cardLabel(estimate)}`;
  renderSeats($('seats'), open ? table : {...table, seats: []}, null);
  const here = joinLink(address);
  $('join-link').textContent = here;
  $('join-link').href = here;
  $('seats-free').textContent = !open ? 'Start a game at this address.'
    : table.free > 0 ? `${plural(table.free, 'seat', 'seats')} free.` : 'Every seat is taken: watch here.';
  if (before) announce($('announce'), announcements(before, table));
}

link.start();
