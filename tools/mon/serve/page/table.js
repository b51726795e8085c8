// The table: a row a channel, made once and kept; only what changed is written.
const kLevels = { ok: 0, warn: 1, bad: 2 };
const worst = channel => kLevels[channel.level] || 0;
const flows = channel => channel.level === "ok" && channel.state === "flowing" ? 1 : 0;
const text = (a, b) => a.localeCompare(b, "ko", { numeric: true });
const endKey = end => end && end.name ? end.name : "";
// key, heading, what it sorts by, and whether great values come first.
const kColumns = [
  { key: "state", head: "state", order: (a, b) => worst(a) - worst(b) || a.rank - b.rank || a.depth - b.depth || flows(a) - flows(b), down: true },
  { key: "name", head: "channel", order: (a, b) => text(a.name, b.name) },
  { key: "number", head: "#", order: (a, b) => a.number - b.number, hidden: true },
  { key: "depth", head: "waiting", order: (a, b) => a.depth - b.depth, down: true, number: true },
  { key: "fill", head: "% of slots", order: (a, b) => a.fill - b.fill, down: true, hidden: true },
  { key: "in", head: "in/s", order: (a, b) => a.in - b.in, down: true, number: true },
  { key: "out", head: "out/s", order: (a, b) => a.out - b.out, down: true, number: true },
  { key: "spark", head: "5 minutes", className: "spark" },
  { key: "lastin", head: "last in", order: (a, b) => a.last_in - b.last_in, down: true, number: true },
  { key: "lastout", head: "last out", order: (a, b) => a.last_out - b.last_out, down: true, number: true },
  { key: "writer", head: "writer", order: (a, b) => text(endKey(a.writer), endKey(b.writer)), className: "optional" },
  { key: "reader", head: "reader", order: (a, b) => text(endKey(a.reader), endKey(b.reader)), className: "optional" },
];
const columnOf = key => kColumns.find(column => column.key === key && column.order);

const rows = new Map(); // by number

const makeRow = number => {
  const tr = make("tr");
  const row = { tr, number, cells: {}, series: new Series(), channel: null };
  tr.dataset.number = number;
  tr.tabIndex = -1;
  for (const column of kColumns) {
    if (column.hidden) continue;
    const td = make("td", (column.className || "") + (column.number ? " n" : ""));
    td.dataset.col = column.key;
    row.cells[column.key] = tr.appendChild(td);
  }
  row.state = row.cells.state.appendChild(make("span", "state"));
  row.name = row.cells.name.appendChild(make("span", "name"));
  row.cells.name.append(make("span", "number", `${number}`));
  row.depth = row.cells.depth.appendChild(make("b"));
  row.share = row.cells.depth.appendChild(make("span", "share"));
  row.fill = row.cells.depth.appendChild(make("span", "fill")).appendChild(make("i"));
  row.canvas = row.cells.spark.appendChild(make("canvas"));
  row.canvas.setAttribute("aria-hidden", "true");
  for (const end of ["writer", "reader"])
    row.cells[end].append(make("span"), make("span", "pid"));
  seen.observe(tr);
  return row;
};

// Pictures are drawn for the rows in sight alone.
const visible = new Set();
const seen = new IntersectionObserver(entries => {
  for (const { target, isIntersecting } of entries) {
    const row = rows.get(Number(target.dataset.number));
    if (!row) continue;
    if (!isIntersecting) visible.delete(row);
    else if (!visible.has(row)) { visible.add(row); drawRow(row); }
  }
}, { rootMargin: "80px" });
const drawRow = row => {
  if (row.channel) draw(row.canvas, row.series, row.channel.slots, row.channel.level);
};

const fillRow = (row, channel, now) => {
  row.channel = channel;
  dress(row.tr, channel.level);
  dress(row.state, `state ${flows(channel) ? "flows" : channel.level}`);
  put(row.state, channel.state);
  const why = channel.trouble.map(each => each.text).join("; ");
  if (row.state.title !== why) row.state.title = why;
  put(row.name, channel.name || "(no name)");
  put(row.depth, count(channel.depth));
  dress(row.depth, channel.depth ? "" : "zero");
  dress(row.cells.depth, channel.depth ? "n depth" : "n depth none");
  put(row.share, channel.slots ? percent(channel.fill) : "");
  const part = channel.fill.toFixed(3);
  if (row.part !== part) row.fill.style.setProperty("--part", row.part = part);
  for (const way of ["in", "out"]) {
    put(row.cells[way], rate(channel[way]));
    dress(row.cells[way], channel[way] > 0 ? "n" : "n zero");
  }
  for (const [way, stamp] of [["lastin", channel.last_in], ["lastout", channel.last_out]]) {
    put(row.cells[way], since(stamp, now));
    dress(row.cells[way], stamp > 0 ? "n" : "n zero");
  }
  showEnd(row.cells.writer, channel.writer);
  showEnd(row.cells.reader, channel.reader);
};

const matches = channel => {
  if (view.trouble && channel.level === "ok") return false;
  if (view.type && channel.type !== view.type) return false;
  const words = view.text.toLowerCase().split(/\s+/).filter(Boolean);
  if (!words.length) return true;
  const ends = [channel.writer, channel.reader];
  const whole = [channel.name, `#${channel.number}`, channel.state,
    ...ends.flatMap(end => [end.name, String(end.pid || "")])].join(" ").toLowerCase();
  return words.every(word => whole.includes(word));
};

// Rows in their places. Moves as few as it can, and keeps the focus.
const arrange = channels => {
  const column = columnOf(view.sort) || kColumns[0];
  const down = view.dir ? view.dir === "desc" : Boolean(column.down);
  const chosen = channels.filter(matches);
  chosen.sort((a, b) => (down ? column.order(b, a) : column.order(a, b)) || a.number - b.number);
  const body = by("rows"), focused = document.activeElement;
  let at = body.firstChild;
  for (const channel of chosen) {
    const tr = rows.get(channel.number).tr;
    if (tr === at) at = at.nextSibling; else body.insertBefore(tr, at);
  }
  while (at) { const next = at.nextSibling; at.remove(); at = next; }
  if (focused && focused.isConnected && focused !== document.activeElement) focused.focus({ preventScroll: true });
  const first = body.firstChild;
  if (first && !body.querySelector("tr[tabindex='0']")) first.tabIndex = 0;
  put(by("shown"), chosen.length === channels.length ? "" : `${chosen.length} of ${channels.length} shown`);
  const empty = by("empty");
  empty.hidden = chosen.length > 0;
  if (!chosen.length) put(empty, !channels.length ? "No channels yet." : view.trouble ? "No channel is in trouble." : "No channel matches the filter.");
};

const headings = () => {
  for (const column of kColumns) {
    if (column.order) by("sort").append(new Option(`by ${column.head === "#" ? "number" : column.head}`, column.key));
    if (column.hidden) continue;
    const th = make("th", (column.className || "") + (column.number ? " n" : ""));
    th.scope = "col";
    if (column.order) {
      const button = th.appendChild(make("button", "", column.head));
      button.type = "button";
      button.addEventListener("click", () => sortBy(column.key));
      th.dataset.key = column.key;
    } else th.append(make("button", "", column.head)), th.firstChild.disabled = true;
    by("heads").append(th);
  }
};
const markSort = () => {
  const column = columnOf(view.sort) || kColumns[0];
  const down = view.dir ? view.dir === "desc" : Boolean(column.down);
  for (const th of by("heads").children) {
    if (th.dataset.key === column.key) th.setAttribute("aria-sort", down ? "descending" : "ascending");
    else th.removeAttribute("aria-sort");
  }
  by("sort").value = column.key;
};
