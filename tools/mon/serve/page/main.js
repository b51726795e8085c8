// Asking once a second while somebody looks, the filters in the address, the keys.
const view = { text: "", type: "", trouble: false, sort: "state", dir: "", channel: "" };
let shown = null;      // the document on the screen
let heard = 0;         // when the server last had something new to say, by this page's own clock
let arrived = 0;       // when the figures on the screen came
let arranged = 0;      // when rows last changed places
let pointed = -1e9;    // when the pointer last moved over the rows
const shownTime = () => shown ? shown.time / 1000 + (performance.now() - arrived) / 1000 : 0;

const readView = () => {
  const given = new URLSearchParams(location.search);
  view.text = given.get("q") || "";
  view.type = given.get("type") || "";
  view.trouble = given.get("trouble") === "1";
  view.sort = columnOf(given.get("sort")) ? given.get("sort") : "state";
  view.dir = ["asc", "desc"].includes(given.get("dir")) ? given.get("dir") : "";
  view.channel = given.get("channel") || "";
  by("text").value = view.text;
  by("trouble").checked = view.trouble;
};
const saveView = () => {
  const given = new URLSearchParams();
  if (view.text) given.set("q", view.text);
  if (view.type) given.set("type", view.type);
  if (view.trouble) given.set("trouble", "1");
  if (view.sort !== "state") given.set("sort", view.sort);
  if (view.dir) given.set("dir", view.dir);
  if (view.channel) given.set("channel", view.channel);
  const query = given.toString();
  history.replaceState(null, "", query ? `?${query}` : location.pathname);
};
const changeView = change => {
  Object.assign(view, change);
  saveView();
  markSort();
  if (shown) arrange(shown.channels);
};
const sortBy = key => {
  const column = columnOf(key);
  const down = view.dir ? view.dir === "desc" : Boolean(column.down);
  changeView(view.sort === key ? { dir: down ? "asc" : "desc" } : { sort: key, dir: "" });
};

const ask = async path => {
  const answer = await fetch(path, { cache: "no-store", signal: AbortSignal.timeout(5000) });
  if (!answer.ok) throw new Error(`${answer.status}`);
  return answer.json();
};

// The points between the last one that is here and the newest: at the start, and after a pause.
const loadHistory = async from => {
  const past = await ask(`api/history?since=${from}`);
  for (const channel of past.channels) {
    const row = rows.get(channel.number);
    if (row) channel.depth.forEach((depth, i) => row.series.add(depth, channel.in[i], channel.out[i]));
  }
  return past.sample;
};

const keepRows = channels => {
  const numbers = new Set(channels.map(channel => channel.number));
  for (const [number, row] of rows)
    if (!numbers.has(number)) { row.tr.remove(); seen.unobserve(row.tr); visible.delete(row); rows.delete(number); }
  for (const channel of channels)
    if (!rows.has(channel.number)) rows.set(channel.number, makeRow(channel.number));
};
const keepTypes = channels => {
  const types = [...new Set(channels.map(channel => channel.type))].sort();
  const select = by("type");
  if (types.join() === select.dataset.types) return;
  select.dataset.types = types.join();
  select.replaceChildren(new Option("all types", ""), ...types.map(type => new Option(`type ${type}`, type)));
  select.value = types.includes(view.type) ? view.type : view.type = "";
};

const showTotals = next => {
  const totals = next.totals;
  put(by("key"), next.segment.key_file);
  put(by("total-trouble"), count(totals.trouble));
  by("total-trouble").classList.toggle("some", totals.trouble > 0);
  put(by("total-depth"), count(totals.depth));
  put(by("total-in"), rate(totals.in));
  put(by("total-out"), rate(totals.out));
  put(by("total-channels"), count(next.channels.length));
  document.title = totals.trouble > 0 ? `▲ ${totals.trouble} Halvo` : "Halvo";
  put(by("announce"), totals.trouble === 1 ? "1 channel is in trouble" : totals.trouble ? `${totals.trouble} channels are in trouble` : "no channel is in trouble");
};

// Rows stay where they are while somebody points at them, and change places every three seconds at
// most, but at once when there is new trouble.
const mayMove = next => {
  const alarm = shown && next.totals.trouble > shown.totals.trouble;
  const now = performance.now();
  return !shown || alarm || now - arranged > 2900 && now - pointed > 4000;
};

const show = async next => {
  const restarted = !shown || shown.server !== next.server || shown.segment.epoch !== next.segment.epoch;
  const fresh = !shown || restarted || next.sample !== shown.sample;
  if (!fresh) return;
  if (!next.segment.up) { // the last figures stay, under the bar
    if (shown && !restarted) next = { ...shown, ...next, channels: shown.channels, totals: shown.totals };
  } else {
    if (restarted) for (const row of rows.values()) row.series.clear();
    keepRows(next.channels);
    const gap = restarted || next.sample !== shown.sample + 1;
    if (gap) {
      const from = restarted ? Math.max(0, next.sample - kPoints) : shown.sample;
      next = { ...next, sample: await loadHistory(from) };
    }
    for (const channel of next.channels) {
      const row = rows.get(channel.number);
      if (!gap) row.series.add(channel.depth, channel.in, channel.out);
      fillRow(row, channel, next.time / 1000);
    }
    keepTypes(next.channels);
  }
  showTotals(next);
  if (mayMove(next)) { arranged = performance.now(); arrange(next.channels); }
  const first = !shown;
  shown = next;
  heard = performance.now();
  if (next.segment.up) arrived = heard;
  for (const row of visible) drawRow(row);
  if (opened && next.segment.up) {
    const row = rows.get(opened.number);
    if (row && row.channel) opened.series.add(row.channel.depth, row.channel.in, row.channel.out);
    refreshDetails();
  } else if (first && view.channel) openDetails(view.channel);
};

// The bar: the server does not answer, it gives old figures, or the segment is gone.
const showAge = () => {
  const age = (performance.now() - arrived) / 1000;
  put(by("age"), !arrived ? "none" : age < 3 ? "live" : `${seconds(age)} old`);
  by("age").classList.toggle("live", arrived > 0 && age < 3);
  const bar = by("bar");
  let why = "";
  if (shown && !shown.segment.up) why = `The segment is gone${arrived ? ", the last figures are shown" : ""}. ${shown.segment.why}`;
  if (performance.now() - heard > 3000) why = shown ? "No new data: the last figures are shown." : "The server does not answer.";
  bar.hidden = !why;
  if (why) put(bar, why);
  document.body.classList.toggle("stale", Boolean(why));
};

let asking = false;
const poll = async () => {
  if (asking || document.hidden) return;
  asking = true;
  try { await show(await ask("api/channels")); } catch (error) { /* the bar tells */ }
  asking = false;
  showAge();
};
const timer = () => { if (!document.hidden) { poll(); showAge(); } };

const move = steps => {
  const all = [...by("rows").children];
  const at = all.indexOf(document.activeElement);
  const next = all[Math.max(0, Math.min(all.length - 1, at < 0 ? 0 : at + steps))];
  if (!next) return;
  for (const tr of by("rows").querySelectorAll("tr[tabindex='0']")) tr.tabIndex = -1;
  next.tabIndex = 0;
  next.focus();
  if (opened) openDetails(rows.get(Number(next.dataset.number)).channel.name);
};
const openRow = tr => { if (tr) openDetails(rows.get(Number(tr.dataset.number)).channel.name); };
const onKey = event => {
  if (event.ctrlKey || event.metaKey || event.altKey) return;
  const typing = event.target.matches("input[type=search], select");
  const inside = event.target.closest("#rows tr");
  const keys = {
    "/": () => by("text").focus(), t: () => by("trouble").click(),
    ArrowDown: () => move(1), ArrowUp: () => move(-1), j: () => move(1), k: () => move(-1),
    PageDown: inside && (() => move(20)), PageUp: inside && (() => move(-20)),
    Home: inside && (() => move(-1e6)), End: inside && (() => move(1e6)),
    Enter: inside && (() => openRow(inside)),
  };
  if (event.key === "Escape") {
    if (opened) openDetails(null);
    else if (typing) { by("text").value = ""; changeView({ text: "" }); event.target.blur(); }
    return;
  }
  if (typing ? event.key === "ArrowDown" && event.target.type === "search" : keys[event.key]) {
    event.preventDefault();
    keys[event.key]();
  }
};

readColours();
headings();
readView();
markSort();
by("text").addEventListener("input", event => changeView({ text: event.target.value }));
by("type").addEventListener("change", event => changeView({ type: event.target.value }));
by("sort").addEventListener("change", event => changeView({ sort: event.target.value, dir: "" }));
by("trouble").addEventListener("change", event => changeView({ trouble: event.target.checked }));
by("filters").addEventListener("submit", event => event.preventDefault());
by("rows").addEventListener("click", event => openRow(event.target.closest("tr")));
by("rows").addEventListener("pointermove", () => { pointed = performance.now(); });
by("rows").addEventListener("pointerleave", () => { pointed = -1e9; });
document.addEventListener("keydown", onKey);
document.addEventListener("visibilitychange", timer);
window.addEventListener("popstate", () => { readView(); markSort(); if (shown) arrange(shown.channels); });
matchMedia("(prefers-color-scheme: light)").addEventListener("change", () => { readColours(); for (const row of visible) drawRow(row); });
timer();
setInterval(timer, 1000);
