// How numbers and times read on the page: binary units, and local times in
// one form everywhere, "2026-01-05 14:03:09" (ISO order, 24 hours).

const UNITS = ['B', 'KiB', 'MiB', 'GiB', 'TiB', 'PiB'];

export function formatBytes(bytes) {
  let value = Number(bytes);
  let unit = 0;
  while (Math.abs(value) >= 1024 && unit < UNITS.length - 1) {
    value /= 1024;
    unit += 1;
  }
  const digits = unit === 0 || value >= 100 ? 0 : value >= 10 ? 1 : 2;
  return `${value.toFixed(digits)} ${UNITS[unit]}`;
}

// "12 898 304 bytes": the exact figure, grouped the same in every locale.
export function formatExactBytes(bytes) {
  const grouped = String(bytes).replace(/\B(?=(\d{3})+(?!\d))/g, '\u202f');
  return `${grouped} ${bytes === 1 ? 'byte' : 'bytes'}`;
}

// Bytes from a figure in a unit of UNITS ("1.5", "GiB"); NaN when it is no
// positive number.
export function parseSize(text, unit) {
  const value = Number(text);
  const power = UNITS.indexOf(unit);
  if (!text || !Number.isFinite(value) || value <= 0 || power < 0) return NaN;
  return Math.round(value * 1024 ** power);
}

const pad = (n) => String(n).padStart(2, '0');

function parts(seconds) {
  const d = new Date(seconds * 1000);
  return {
    year: String(d.getFullYear()),
    day: `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())}`,
    clock: `${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}`,
  };
}

export function formatTime(seconds) {
  const { day, clock } = parts(seconds);
  return `${day} ${clock}`;
}

export const formatDay = (seconds) => parts(seconds).day;
export const formatClock = (seconds) => parts(seconds).clock;

// A short label for a chart whose times run from `first` to `last`: the
// day, with the minute when they lie within two days, the time alone to
// the second within an hour; and the year only when they do not all lie in
// one year.
export function formatAxisTime(seconds, first, last) {
  const { day, clock } = parts(seconds);
  const oneYear = parts(first).year === parts(last).year;
  const date = oneYear ? day.slice(5) : day;
  if (last - first < 3600 && oneYear && parts(first).day === parts(last).day) return clock;
  return last - first < 2 * 86400 ? `${date} ${clock.slice(0, 5)}` : date;
}

export const plural = (count, one, many = `${one}s`) => `${count} ${count === 1 ? one : many}`;

export function formatDuration(seconds) {
  if (seconds < 120) return plural(Math.round(seconds), 'second');
  if (seconds < 7200) return plural(Math.round(seconds / 60), 'minute');
  return plural(Math.round(seconds / 3600), 'hour');
}
