"use strict";
// Shows /api/inputs and fetches it again every 2 s. All texts of it are free text from elsewhere:
// they go into the page as text, never as HTML. What is there stays and is only changed, so that
// what is read, marked or opened stays where it is.

const PERIOD_MS = 2000;
const TIMEOUT_MS = 5000;
const SHOWN_FINDINGS = 12;
// The drawing's own units: one across a second, enough of them upwards to need no fractions.
const WIDTH = 299;
const HEIGHT = 480;
const MARGIN = 30;
const ORDER = ["error", "warning", "info"];

const byId = (id) => document.getElementById(id);
const cards = new Map(); // by name
let inputs = [];

function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}

function element(tag, text = "", className = "") {
  const node = document.createElement(tag);
  node.textContent = text;
  if (className) node.className = className;
  return node;
}

/** Replaces children only where something else is to be shown. */
function setList(list, shown, make) {
  const key = JSON.stringify(shown);
  if (list.dataset.shown === key) return;
  list.dataset.shown = key;
  list.replaceChildren(...shown.map(make).flat());
}

function rateText(bps) {
  if (bps >= 1e6) return `${(bps / 1e6).toFixed(bps >= 1e8 ? 0 : 2)} Mbit/s`;
  if (bps >= 1e3) return `${(bps / 1e3).toFixed(0)} kbit/s`;
  return `${bps} bit/s`;
}

function timeText(utc) {
  const time = new Date(utc);
  return time.toDateString() === new Date().toDateString()
    ? time.toLocaleTimeString()
    : time.toLocaleString();
}

const countText = (count, noun) => `${count.toLocaleString()} ${noun}${count === 1 ? "" : "s"}`;

function openCount(input, severity) {
  return input.findings
    .filter((finding) => finding.severity === severity)
    .reduce((sum, finding) => sum + finding.open, 0);
}

/** What an input is at its worst: error, warning, or nothing. */
function levelOf(input) {
  if (input.state === "ended") return "";
  if (!input.up || openCount(input, "error")) return "error";
  if (input.current.some(({ record }) => record.severity === "error")) return "error";
  if (input.current.some(({ record }) => record.severity === "warning")) return "warning";
  return openCount(input, "warning") ? "warning" : "";
}

function stateText(input) {
  if (input.state === "gone" || input.state === "ended") return input.state;
  if (input.up) return "up";
  return input.state === "waiting" ? "waiting" : "no packets";
}

function drawRate(card, rates) {
  const line = card.querySelector("polyline");
  const most = Math.max(1, ...rates);
  const scale = (HEIGHT - 2 * MARGIN) / most;
  const left = WIDTH + 1 - rates.length;
  const points = rates.map((rate, i) => `${left + i},${Math.round(HEIGHT - MARGIN - rate * scale)}`);
  line.setAttribute("points", points.join(" "));
  const now = rates.length ? rateText(rates[rates.length - 1]) : "no bit rate yet";
  const range = rates.length
    ? `${rateText(Math.min(...rates))} to ${rateText(Math.max(...rates))} in ${countText(rates.length, "second")}`
    : "";
  setText(card.querySelector(".now"), now);
  setText(card.querySelector(".range"), range);
  card.querySelector("svg").setAttribute("aria-label", `Bit rate: now ${now}, ${range}`);
}

function findingItem({ open, record }) {
  const item = element("li", "", record.severity);
  item.append(element("b", `${record.rule} ${record.severity}${open ? ", open" : ""}`));
  item.append(record.text);
  const since = record.begin.ts;
  if (since) {
    const time = element("time", timeText(since));
    time.dateTime = since;
    item.append(time);
  }
  return item;
}

function findingItems(input) {
  const worstFirst = [...input.current].sort(
    (a, b) => b.open - a.open || ORDER.indexOf(a.record.severity) - ORDER.indexOf(b.record.severity),
  );
  const items = worstFirst.slice(0, SHOWN_FINDINGS);
  if (worstFirst.length > items.length) items.push(worstFirst.length - items.length);
  return items;
}

function tallyText(input) {
  const parts = ORDER.map((severity) => {
    const all = input.findings.filter((finding) => finding.severity === severity);
    const count = all.reduce((sum, finding) => sum + finding.count, 0);
    if (!count) return "";
    const rules = all.map((finding) => `${finding.rule}: ${finding.count.toLocaleString()}`);
    return `${countText(count, severity === "info" ? "notice" : severity)} (${rules.join(", ")})`;
  });
  return parts.filter(Boolean).join("; ") || "Nothing found so far.";
}

function figures(input) {
  const rows = [
    ["Packets", input.packets.toLocaleString()],
    ["Datagrams", input.datagrams.toLocaleString()],
    ["Lost packets", input.lost_packets.toLocaleString()],
    ["Lost RTP datagrams", input.rtp_lost.toLocaleString()],
    ["Dropped by this machine", input.own_drops.toLocaleString()],
    ["Last packet", input.last_packet ? timeText(input.last_packet) : "none yet"],
  ];
  for (const { program, ms } of input.av_offset)
    rows.push([`Sound of program ${program}`, `${Math.abs(ms).toFixed(0)} ms ${ms < 0 ? "early" : "late"}`]);
  if (input.analyzer) {
    const { running, restarts, dropped } = input.analyzer;
    const state = running ? "running" : "being started again";
    rows.push(["Analyzer", `${state}; ${countText(restarts, "restart")}, ${dropped.toLocaleString()} datagrams dropped`]);
  }
  return rows;
}

function programItem(program) {
  const item = element("li", `Program ${program.number}${program.name ? `, ${program.name}` : ""}`);
  const streams = element("ul");
  for (const stream of program.streams) {
    const rate = stream.bitrate_bps === null ? "" : `, ${rateText(stream.bitrate_bps)}`;
    const language = stream.language ? `, ${stream.language}` : "";
    streams.append(element("li", `pid ${stream.pid}: ${stream.kind}, ${stream.codec}${language}${rate}`));
  }
  item.append(streams);
  return item;
}

/** Programs without what changes all the time but bit rates. */
function programsOf(input) {
  return input.programs.map(({ number, name, streams }) => ({
    number,
    name,
    streams: streams.map(({ pid, kind, codec, language, bitrate_bps }) => ({ pid, kind, codec, language, bitrate_bps })),
  }));
}

function update(card, input) {
  const level = levelOf(input);
  card.className = `input ${level}`;
  const state = card.querySelector(".state");
  setText(state, stateText(input));
  state.className = `state ${input.up || input.state === "ended" ? "" : input.state === "waiting" ? "warning" : "error"}`;
  setText(card.querySelector("h2"), input.name);
  const url = card.querySelector(".url");
  setText(url, input.url);
  url.hidden = input.url === input.name;
  const what = card.querySelector(".what");
  setText(what, input.state_text);
  what.hidden = !input.state_text;
  setText(card.querySelector(".tally"), tallyText(input));
  drawRate(card, input.bitrate_bps);
  setList(card.querySelector(".findings"), findingItems(input), (item) =>
    typeof item === "number" ? element("li", `and ${item} more`, "info") : findingItem(item),
  );
  if (card.querySelector("details").open) showDetails(card, input);
}

function showDetails(card, input) {
  setList(card.querySelector("dl"), figures(input), ([name, value]) => {
    const row = element("div");
    row.append(element("dt", name), element("dd", value));
    return row;
  });
  setList(card.querySelector(".programs"), programsOf(input), programItem);
}

function newCard(name) {
  const card = byId("input").content.firstElementChild.cloneNode(true);
  card.querySelector("details").addEventListener("toggle", () => {
    const input = inputs.find((one) => one.name === name);
    if (input) showDetails(card, input);
  });
  return card;
}

function filter() {
  const wanted = byId("name").value.trim().toLowerCase();
  const onlyBad = byId("bad").checked;
  let shown = 0;
  for (const input of inputs) {
    const fits = (!wanted || input.name.toLowerCase().includes(wanted)) && (!onlyBad || levelOf(input) !== "");
    cards.get(input.name).hidden = !fits;
    shown += fits;
  }
  byId("none").hidden = shown > 0;
}

function sumText() {
  const ended = inputs.filter((input) => input.state === "ended").length;
  const down = inputs.filter((input) => !input.up).length - ended;
  const bad = inputs.filter((input) => levelOf(input) === "error").length;
  const doubtful = inputs.filter((input) => levelOf(input) === "warning").length;
  const parts = [countText(inputs.length, "input")];
  if (down) parts.push(`${down} without signal`);
  if (bad) parts.push(`${bad} with errors`);
  if (doubtful) parts.push(`${doubtful} with warnings`);
  if (ended) parts.push(`${ended} ended`);
  if (!down && !bad && !doubtful) parts.push("all good");
  return parts.join(", ");
}

function show({ version, inputs: latest }) {
  inputs = latest;
  const names = new Set(inputs.map((input) => input.name));
  for (const [name, card] of cards)
    if (!names.has(name)) {
      card.remove();
      cards.delete(name);
    }
  const list = byId("inputs");
  inputs.forEach((input, i) => {
    if (!cards.has(input.name)) cards.set(input.name, newCard(input.name));
    const card = cards.get(input.name);
    if (list.children[i] !== card) list.insertBefore(card, list.children[i] ?? null);
    update(card, input);
  });
  setText(byId("sum"), sumText());
  setText(byId("version"), `quarn-live ${version}`);
  document.title = sumText();
  filter();
}

async function turn() {
  const stale = byId("stale");
  try {
    const response = await fetch("/api/inputs", { signal: AbortSignal.timeout(TIMEOUT_MS) });
    if (!response.ok) throw new Error(`status ${response.status}`);
    show(await response.json());
    stale.hidden = true;
  } catch {
    if (stale.hidden) setText(stale, `No answer since ${new Date().toLocaleTimeString()}: what is shown is old.`);
    stale.hidden = false;
  }
  setTimeout(turn, PERIOD_MS);
}

byId("filter").addEventListener("input", filter);
byId("filter").addEventListener("submit", (event) => event.preventDefault());
turn();
