// Times as people use them: typed and shown in the browser's time zone or in UTC, sent to the
// API as seconds since 1970 with their microseconds.

export const zones = {
  local: Intl.DateTimeFormat().resolvedOptions().timeZone || 'local time',
  utc: 'UTC',
};

const pad = (n, width = 2) => String(n).padStart(width, '0');

function parts(ms, zone) {
  const d = new Date(ms);
  return zone === 'utc'
    ? [d.getUTCFullYear(), d.getUTCMonth() + 1, d.getUTCDate(), d.getUTCHours(), d.getUTCMinutes(), d.getUTCSeconds()]
    : [d.getFullYear(), d.getMonth() + 1, d.getDate(), d.getHours(), d.getMinutes(), d.getSeconds()];
}

// "2024-01-01 13:05:09", to the second, in the zone.
export function showTime(seconds, zone) {
  const [y, mo, d, h, mi, s] = parts(Math.floor(seconds) * 1000, zone);
  return `${y}-${pad(mo)}-${pad(d)} ${pad(h)}:${pad(mi)}:${pad(s)}`;
}

// Seconds since 1970 of what a person typed, with the API's text for it; or why it cannot be read.
// Accepted: seconds since 1970; an ISO 8601 time with Z or an offset; a date and time without a
// zone ("2024-01-01 13:00", seconds and fraction optional), taken in the zone shown.
export function readTime(text, zone) {
  text = text.trim();
  if (/^\d{1,10}(\.\d{1,6})?$/.test(text)) return { seconds: Number(text), api: text };
  const m = /^(\d{4})-(\d\d)-(\d\d)(?:[ T](\d\d):(\d\d)(?::(\d\d)(\.\d{1,6})?)?)?(Z|[+-]\d\d:?\d\d)?$/i.exec(text);
  if (!m) return { why: 'a date and time such as 2024-01-01 13:00, or seconds since 1970' };
  const [, y, mo, d, h = '0', mi = '0', s = '0', fraction = '', offset] = m;
  const numbers = [Number(y), Number(mo) - 1, Number(d), Number(h), Number(mi), Number(s)];
  let ms;
  if (offset) {
    const iso = `${y}-${mo}-${d}T${pad(h)}:${pad(mi)}:${pad(s)}${offset.toUpperCase() === 'Z' ? 'Z' : offset}`;
    ms = Date.parse(iso);
  } else {
    ms = zone === 'utc' ? Date.UTC(...numbers) : new Date(...numbers).getTime();
  }
  const [cy, cmo, cd, ch, cmi, cs] = parts(Number.isNaN(ms) ? 0 : ms, offset ? 'utc' : zone);
  const exact = offset || (cy === numbers[0] && cmo === numbers[1] + 1 && cd === numbers[2]
    && ch === numbers[3] && cmi === numbers[4] && cs === numbers[5]);
  if (Number.isNaN(ms) || !exact || ms < 0) return { why: 'no such date or time' };
  const whole = Math.floor(ms / 1000);
  return { seconds: whole + Number(fraction || 0), api: `${whole}${fraction}` };
}

// The stretches people ask for most, ending now (or at midnight for yesterday).
export function preset(name, zone) {
  const now = Date.now();
  const [y, mo, d] = parts(now, zone);
  const dayStart = (offset) => (zone === 'utc' ? Date.UTC(y, mo - 1, d + offset) : new Date(y, mo - 1, d + offset).getTime());
  const midnight = dayStart(0);
  const day = 86400000;
  const ranges = {
    hour: [now - 3600000, now],
    today: [midnight, now],
    yesterday: [dayStart(-1), midnight],
    week: [now - 7 * day, now],
  };
  return ranges[name].map((ms) => showTime(ms / 1000, zone));
}

// The midnight in the zone that begins the day of `seconds`: where day buckets start.
export function midnightBefore(seconds, zone) {
  const [y, mo, d] = parts(Math.floor(seconds) * 1000, zone);
  return (zone === 'utc' ? Date.UTC(y, mo - 1, d) : new Date(y, mo - 1, d).getTime()) / 1000;
}
