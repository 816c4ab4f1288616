// The open share, the chosen range and the ticked snapshots live in the
// page's address, so that a reload, Back and a bookmark bring them back:
// "?share=NAME&from=ID&to=ID&tick=ID,ID".

const ids = (text) =>
  (text ?? '').split(',').filter((id) => /^[1-9][0-9]*$/.test(id)).map(Number);

export function readUrl() {
  const query = new URLSearchParams(window.location.search);
  const [from] = ids(query.get('from'));
  const [to] = ids(query.get('to'));
  return { share: query.get('share') ?? '', from: from ?? 0, to: to ?? 0, ticks: ids(query.get('tick')) };
}

// A new entry for another share, so that Back returns to the one before;
// the range and ticks of the same share replace the current entry.
export function writeUrl({ share, from = 0, to = 0, ticks = [] }) {
  const query = new URLSearchParams();
  if (share) query.set('share', share);
  if (share && from) query.set('from', from);
  if (share && to) query.set('to', to);
  if (share && ticks.length) query.set('tick', ticks.join(','));
  const search = query.toString() ? `?${query}` : window.location.pathname;
  if (search === window.location.search) return;
  const sameShare = readUrl().share === share;
  if (sameShare) window.history.replaceState(null, '', search);
  else window.history.pushState(null, '', search);
}
