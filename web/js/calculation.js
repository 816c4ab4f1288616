// A share's last calculation as the space map module tells it, in the
// shape the page works with: its state and true progress, its range and
// times, why it failed, and one row per snapshot it covered.

import { ApiError, space } from './api.js';

const NO_CALCULATION = 8;

const seconds = (value) => (Number.isFinite(value) ? value : null);

function readRow(row) {
  return {
    subvolId: row.subvol_id,
    name: row.time,
    path: row.path ?? '',
    alone: row.alone_bytes,
    added: row.added_bytes,
    accum: row.accum_bytes,
  };
}

// The share's last calculation; state '' when it has none.
export async function getCalculation(shareName) {
  let data;
  try {
    data = await space('get', { share_name: shareName });
  } catch (error) {
    if (error instanceof ApiError && error.code === NO_CALCULATION) return emptyCalculation();
    throw error;
  }
  return {
    state: data.status ?? '',
    rangeStart: seconds(data.range_start),
    rangeEnd: seconds(data.range_end),
    startTime: seconds(data.start_task),
    endTime: seconds(data.end_task),
    processed: data.processed_in_bytes ?? 0,
    estimated: data.estimated_in_bytes ?? 0,
    reason: data.reason ?? '',
    rows: (data.snap_list ?? []).map(readRow),
  };
}

export function emptyCalculation() {
  return {
    state: '', rangeStart: null, rangeEnd: null, startTime: null, endTime: null,
    processed: 0, estimated: 0, reason: '', rows: [],
  };
}

// What tells two answers about one share apart: a changed one is drawn anew.
export function calculationKey(calculation) {
  const { state, rangeStart, rangeEnd, startTime, endTime, reason, rows } = calculation;
  return JSON.stringify([state, rangeStart, rangeEnd, startTime, endTime, reason, rows.length]);
}

// What deleting the snapshots with these IDs frees, and the files behind it.
export async function freedBy(shareName, subvolIds) {
  const data = await space('freed', { share_name: shareName, subvol_ids: subvolIds });
  return {
    freed: data.freed_bytes,
    data: data.data_bytes,
    metadata: data.metadata_bytes,
    files: data.files ?? [],
    filesComplete: data.files_complete !== false,
  };
}

function readProposal(proposal) {
  return {
    subvolIds: proposal?.subvol_ids ?? [],
    freed: proposal?.freed_bytes ?? 0,
    reached: proposal?.reached !== false,
    exact: proposal?.exact === true,
  };
}

// Two ways to free `bytes` keeping the newest `keepNewest`.
export async function planFor(shareName, bytes, keepNewest) {
  const data = await space('plan', { share_name: shareName, bytes, keep_newest: keepNewest });
  return { oldestFirst: readProposal(data.oldest_first), fewest: readProposal(data.fewest_snapshots) };
}
