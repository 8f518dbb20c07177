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
const clock = new Intl.DateTimeFormat(undefined, {
  year: "numeric",
  month: "short",
  day: "numeric",
  hour: "numeric",
  minute: "2-digit",
  second: "2-digit",
  timeZoneName: "short",
});
let inputs = [];
let now = Date.now(); // by the clock of quarn-live, which times of findings are of

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

/** With date and zone: a page is left open for days, and looked at from elsewhere. */
const timeText = (utc) => clock.format(new Date(utc));

/** Two units at most: "47 s", "2 min 3 s", "3 h 12 min", "2 d 4 h". */
function lengthText(ms) {
  const s = Math.max(0, Math.floor(ms / 1000));
  if (s === 0) return "less than 1 s";
  const units = [
    [86400, "d"],
    [3600, "h"],
    [60, "min"],
    [1, "s"],
  ];
  const first = units.findIndex(([length]) => s >= length);
  return units
    .slice(first, first + 2)
    .map(([length, unit], i) => [i ? Math.floor((s % units[first][0]) / length) : Math.floor(s / length), unit])
    .filter(([count]) => count)
    .map((part) => part.join(" "))
    .join(" ");
}

const countText = (count, noun) => `${count.toLocaleString()} ${noun}${count === 1 ? "" : "s"}`;

function openCount(input, severity) {
  return input.findings
    .filter((finding) => finding.severity === severity)
    .reduce((sum, finding) => sum + finding.open, 0);
}

/**
 * What an input is at its worst, now or within the last minute: each is one of these, so that the
 * counts of the header add up. What has ended is no fault.
 */
function levelOf(input) {
  if (input.state === "ended") return "ended";
  if (!input.up) return "down";
  const has = (severity) =>
    openCount(input, severity) || input.current.some(({ record }) => record.severity === severity);
  return ["error", "warning"].find(has) ?? "good";
}

function stateText(input) {
  if (input.state === "ended" || input.state === "gone") return input.state;
  if (!input.up) return input.state === "waiting" ? "waiting" : "no packets";
  return { error: "up, errors", warning: "up, warnings" }[levelOf(input)] ?? "up";
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
    const length = element("span", "", "length");
    if (open) length.dataset.since = since;
    else if (record.end.ts !== since) length.textContent = `for ${lengthText(new Date(record.end.ts) - new Date(since))}`;
    item.append(element("span", open ? "since" : "", "since"), time, length);
  }
  return item;
}

/** How long what is open lasts by now. */
function updateLengths(list) {
  for (const length of list.querySelectorAll("[data-since]"))
    setText(length, `for ${lengthText(now - new Date(length.dataset.since))}`);
}

function findingItems(input) {
  const worstFirst = [...input.current].sort(
    (a, b) => b.open - a.open || ORDER.indexOf(a.record.severity) - ORDER.indexOf(b.record.severity),
  );
  const items = worstFirst.slice(0, SHOWN_FINDINGS);
  if (worstFirst.length > items.length) items.push(worstFirst.length - items.length);
  return items;
}

const severityNoun = (severity) => (severity === "info" ? "notice" : severity);

function tallyText(input) {
  const sentences = [];
  if (!input.packets) sentences.push(input.datagrams ? "Nothing of a transport stream came so far." : "Nothing came so far.");
  const parts = ORDER.map((severity) => {
    const all = input.findings.filter((finding) => finding.severity === severity);
    const count = all.reduce((sum, finding) => sum + finding.count, 0);
    if (!count) return "";
    const rules = all.map((finding) => `${finding.rule}: ${finding.count.toLocaleString()}`);
    return `${countText(count, severityNoun(severity))} (${rules.join(", ")})`;
  }).filter(Boolean);
  const last = input.findings.map((finding) => finding.last ?? "").sort().pop();
  if (parts.length) sentences.push(`Since the start: ${parts.join("; ")}${last ? `, the last one ${timeText(last)}` : ""}.`);
  return sentences.join(" ") || "Nothing found so far.";
}

function ruleItem({ rule, name, severity, count, open, last }) {
  const parts = [countText(count, severityNoun(severity))];
  if (open) parts.push(`${open.toLocaleString()} open`);
  if (last) parts.push(`last ${timeText(last)}`);
  return element("li", `${rule} ${name}: ${parts.join(", ")}`);
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
  const colour = level !== "down" ? level : input.state === "waiting" ? "warning" : "error";
  card.className = `input ${colour}`;
  const state = card.querySelector(".state");
  setText(state, stateText(input));
  state.className = `state ${colour}`;
  setText(card.querySelector("h2"), input.name);
  const url = card.querySelector(".url");
  setText(url, input.url);
  url.hidden = input.url === input.name;
  const what = card.querySelector(".what");
  setText(what, input.state_text);
  what.hidden = !input.state_text;
  setText(card.querySelector(".tally"), tallyText(input));
  drawRate(card, input.bitrate_bps);
  const findings = card.querySelector(".findings");
  setList(findings, findingItems(input), (item) =>
    typeof item === "number" ? element("li", `and ${item} more`, "info") : findingItem(item),
  );
  updateLengths(findings);
  if (card.querySelector("details").open) showDetails(card, input);
}

function showDetails(card, input) {
  setList(card.querySelector("dl"), figures(input), ([name, value]) => {
    const row = element("div");
    row.append(element("dt", name), element("dd", value));
    return row;
  });
  setList(card.querySelector(".rules"), input.findings, ruleItem);
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
    const fits = (!wanted || input.name.toLowerCase().includes(wanted)) && (!onlyBad || !["good", "ended"].includes(levelOf(input)));
    cards.get(input.name).hidden = !fits;
    shown += fits;
  }
  byId("none").hidden = shown > 0;
}

function sumText() {
  const levels = inputs.map(levelOf);
  const parts = [
    ["down", "without signal"],
    ["error", "with errors in the last minute"],
    ["warning", "with warnings in the last minute"],
    ["ended", "ended"],
    ["good", "good"],
  ]
    .map(([level, words]) => [levels.filter((one) => one === level).length, words])
    .filter(([count]) => count)
    .map(([count, words]) => `${count === inputs.length ? "all" : count} ${words}`);
  return [countText(inputs.length, "input"), parts.join(", ")].filter(Boolean).join(": ");
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
  filter();
}

function setStale(stale) {
  const note = byId("stale");
  if (stale && note.hidden) setText(note, `No answer since ${timeText(Date.now())}: what is shown is old.`);
  note.hidden = !stale;
  document.body.classList.toggle("stale", stale);
  document.title = stale ? "No answer from quarn-live" : sumText();
}

async function turn() {
  try {
    const response = await fetch("/api/inputs", { signal: AbortSignal.timeout(TIMEOUT_MS) });
    if (!response.ok) throw new Error(`status ${response.status}`);
    const answer = await response.json();
    now = Date.parse(response.headers.get("Date")) || Date.now();
    show(answer);
    setStale(false);
  } catch {
    setStale(true);
  }
  setTimeout(turn, PERIOD_MS);
}

byId("filter").addEventListener("input", filter);
byId("filter").addEventListener("submit", (event) => event.preventDefault());
turn();
