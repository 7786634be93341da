// Statistics of the opened cards: only numeric cards count ("?" and "coffee" don't).

export const DECK = ['0', '1/2', '1', '2', '3', '5', '8', '13', '20', '40', '100', '?', 'coffee'];

export function cardValue(card) {
  if (card === '1/2') {
    return 0.5;
  }
  return /^[0-9]+$/.test(card) ? Number(card) : null;
}

function formatNumber(value) {
  return Number.isInteger(value) ? String(value) : String(Math.round(value * 100) / 100);
}

// {average, median, consensus} as texts; dashes when no numeric card is open.
export function statistics(cards) {
  const values = cards.map(cardValue).filter((v) => v !== null).sort((a, b) => a - b);
  if (values.length === 0) {
    return {average: '\u2013', median: '\u2013', consensus: '\u2013'};
  }
  const sum = values.reduce((a, b) => a + b, 0);
  const middle = Math.floor(values.length / 2);
  const median = values.length % 2 === 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
  const consensus = values.every((v) => v === values[0]);
  return {
    average: formatNumber(sum / values.length),
    median: formatNumber(median),
    consensus: consensus ? 'Yes' : 'No',
  };
}
