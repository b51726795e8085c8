// How figures become words. No text becomes markup: elements get their text by textContent alone.
const thousands = new Intl.NumberFormat("en-US");
const count = value => thousands.format(Math.round(value));
// A rate keeps one digit behind the point while that says something.
const rate = value => value > 0 && value < 9.95 ? value.toFixed(1) : count(value);
const seconds = value => {
  if (value < 0) return "0 s";
  if (value < 100) return `${Math.floor(value)} s`;
  if (value < 6000) return `${Math.floor(value / 60)} min`;
  if (value < 172800) return `${Math.floor(value / 3600)} h`;
  return `${Math.floor(value / 86400)} d`;
};
// Time since a stamp in seconds; 0 is never.
const since = (stamp, now) => stamp > 0 ? seconds(now - stamp) : "never";
const percent = part => `${Math.floor(part * 100)} %`;
const clock = stamp => new Date(stamp * 1000).toLocaleString("sv-SE");

const make = (tag, className, text) => {
  const element = document.createElement(tag);
  if (className) element.className = className;
  if (text !== undefined) element.textContent = text;
  return element;
};
// Writing what is there already would make the browser lay the page out again.
const put = (element, text) => { if (element.textContent !== text) element.textContent = text; };
const dress = (element, className) => { if (element.className !== className) element.className = className; };
const by = id => document.getElementById(id);

// An end of a channel: who holds it, in words for those who do not see the mark before it.
const endWords = end => {
  if (!end || !end.pid && !end.held) return "nobody";
  if (end.held && !end.alive) return "dead, and holds it";
  if (end.held) return "holds it";
  return end.alive ? "does not hold it" : "gone";
};
const showEnd = (cell, end) => {
  const dead = end.held && !end.alive;
  const known = end.held || end.pid;
  dress(cell, `end optional${dead ? " dead" : end.held ? " held" : known ? " zero" : " nobody"}`);
  put(cell.firstChild, known ? end.name || "unnamed" : "");
  put(cell.lastChild, end.pid ? String(end.pid) + (dead ? " dead" : "") : "");
  const title = `${end.kind}: ${endWords(end)}`;
  if (cell.title !== title) cell.title = title;
};
