// How numbers and times read on the page.

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

const pad = (n) => String(n).padStart(2, '0');

function localParts(seconds) {
  const d = new Date(seconds * 1000);
  return {
    date: `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())}`,
    time: `${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}`,
  };
}

// Local time, to the second: "2024-03-05 17:04:09".
export function formatTime(seconds) {
  const { date, time } = localParts(seconds);
  return `${date} ${time}`;
}

export function formatDay(seconds) {
  return localParts(seconds).date;
}

export function formatClock(seconds) {
  return localParts(seconds).time;
}

// A short label for an axis whose times span `spanSeconds`: the day, or
// within two days the day and the minute ("11-23 03:04").
export function formatAxisTime(seconds, spanSeconds) {
  const { date, time } = localParts(seconds);
  return spanSeconds < 2 * 86400 ? `${date.slice(5)} ${time.slice(0, 5)}` : date;
}

// The value of a datetime-local input for a time, and back (NaN when empty).
export function toInputValue(seconds) {
  const { date, time } = localParts(seconds);
  return `${date}T${time}`;
}

export function fromInputValue(text) {
  if (!text) return NaN;
  return Math.floor(new Date(text).getTime() / 1000);
}
