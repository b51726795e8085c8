// The details of one channel, beside the table. Asked for once a second while they are open.
const panel = by("details");
let opened = null; // { number, name, series }

const list = (title, pairs) => {
  const dl = make("dl");
  for (const [term, value] of pairs) {
    const div = dl.appendChild(make("div"));
    div.append(make("dt", "", term), make("dd", "", String(value)));
  }
  return [make("h3", "", title), dl];
};
// Columns of numbers stand right: those whose heading ends in a blank.
const table = (title, heads, lines) => {
  const whole = make("table");
  const head = whole.appendChild(make("thead")).appendChild(make("tr"));
  const side = heads.map(name => name.endsWith(" ") ? "n" : "");
  heads.forEach((name, i) => head.append(make("th", side[i], name)));
  const body = whole.appendChild(make("tbody"));
  for (const cells of lines) {
    const tr = body.appendChild(make("tr"));
    cells.forEach((cell, i) => tr.append(make("td", side[i], String(cell))));
  }
  return [make("h3", "", title), whole];
};

const endLines = (channel, now) => ["writer", "reader", "file_writer", "file_reader"]
  .map(key => channel[key]).filter(Boolean)
  .map(end => [end.kind, end.name || "–", end.pid || "–", endWords(end), since(end.heartbeat, now)]);

const figures = (channel, now) => [
  ["waiting", count(channel.depth)], ["% of slots", percent(channel.fill)],
  ["in the ring", count(channel.ring_depth)], ["in the file queue", count(channel.file_depth)],
  ["in/s", rate(channel.in)], ["out/s", rate(channel.out)],
  ["put", count(channel.put)], ["got", count(channel.got)],
  ["file put", count(channel.file_put)], ["file got", count(channel.file_got)],
  ["parked", count(channel.parked)], ["got with error", count(channel.errors)],
  ["last in", since(channel.last_in, now)], ["last out", since(channel.last_out, now)],
  ["last error", channel.error_time ? `${channel.error_code} ${since(channel.error_time, now)} ago` : "none"],
  ["limit", channel.rate_limit > 0 ? `${count(channel.rate_limit)}/s` : "none"],
  ["writers waiting", count(channel.waiting_writers)], ["readers waiting", count(channel.waiting_readers)],
  ["slots", count(channel.slots)], ["slot size", `${count(channel.slot_bytes)} bytes`],
];

// What stays in place while the figures below it are written anew.
const frame = () => {
  const close = make("button", "close", "×");
  close.type = "button";
  close.setAttribute("aria-label", "Close the details");
  close.addEventListener("click", () => openDetails(null));
  const title = make("h2");
  title.id = "details-name";
  title.append(make("span"), make("small"));
  const legend = make("div", "legend");
  for (const [name, words] of [["in", "in/s"], ["out", "out/s"], ["depth", "waiting"]]) {
    const entry = legend.appendChild(make("span", name));
    entry.append(make("i"), make("span", "", words));
  }
  const picture = make("canvas");
  picture.setAttribute("role", "img");
  picture.setAttribute("aria-label", "Depth and rates of the last 15 minutes");
  panel.replaceChildren(close, title, make("ul", "why"), make("h3", "", "last 15 minutes"), picture, legend, make("div", "body"));
};

const fillDetails = channel => {
  const now = shownTime();
  const part = name => panel.querySelector(name);
  put(part("h2 span"), channel.name || "(no name)");
  put(part("h2 small"), `#${channel.number}, type ${channel.type}`);
  part(".why").replaceChildren(...(channel.trouble.length ? channel.trouble.map(each => {
    const item = make("li");
    item.append(make("span", `state ${each.level}`, each.word), make("span", "means", `: ${each.text}`));
    return item;
  }) : [make("li", `state${channel.state === "flowing" ? " flows" : ""}`, channel.state)]));
  const chart = opened.series;
  const canvas = part("canvas");
  draw(canvas, chart, channel.slots, channel.level, true);
  put(part(".legend .in span"), `in/s, up to ${rate(Math.max(peak(chart.in), peak(chart.out)))}`);
  put(part(".legend .depth span"), `waiting, up to ${count(peak(chart.depth))}`);
  const blocks = [...list("figures", figures(channel, now)),
    ...table("ends", ["end", "name", "process", "who", "seen "], endLines(channel, now))];
  if (channel.types.length)
    blocks.push(...table("messages by type", ["type", "name", "messages ", "errors "],
      channel.types.map(type => [type.type, type.name || "–", count(type.count), count(type.errors)])));
  if (channel.clients.length)
    blocks.push(...table("clients", ["process", "side", "seen "],
      channel.clients.map(client => [client.pid, client.side, since(client.time, now)])));
  part(".body").replaceChildren(...blocks);
};

const refreshDetails = async () => {
  const wanted = opened;
  if (!wanted) return;
  try {
    const channel = await ask(`api/channels/${encodeURIComponent(wanted.name)}`);
    if (opened === wanted && channel.channel) fillDetails(channel.channel);
  } catch (error) {
    // The bar tells that the server does not answer; the channel itself may be damaged or gone.
    const row = rows.get(wanted.number);
    if (opened === wanted && row) put(panel.querySelector("h2 span"), row.channel.name || "(no name)");
  }
};

const loadChart = async wanted => {
  const got = await ask(`api/history?since=0&channel=${encodeURIComponent(wanted.name)}`);
  const past = got.channels[0];
  if (!past || opened !== wanted) return;
  wanted.series.clear();
  past.depth.forEach((depth, i) => wanted.series.add(depth, past.in[i], past.out[i]));
};

const openDetails = async name => {
  const row = name === null ? null : [...rows.values()].find(each => each.channel && each.channel.name === name);
  for (const each of rows.values()) each.tr.ariaCurrent = each === row ? "true" : null;
  const before = opened;
  opened = row ? { number: row.number, name, series: new Series(900) } : null;
  panel.hidden = !opened;
  document.body.classList.toggle("opened", Boolean(opened));
  view.channel = opened ? name : "";
  saveView();
  if (!opened) {
    const back = before && rows.get(before.number);
    if (back && back.tr.isConnected) back.tr.focus({ preventScroll: true });
    return;
  }
  frame();
  panel.scrollTop = 0;
  const wanted = opened;
  try { await loadChart(wanted); } catch (error) { /* the picture begins now */ }
  if (opened === wanted) await refreshDetails();
};
