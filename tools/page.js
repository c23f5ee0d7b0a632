"use strict";
// Shows /status, asked for once a second. Strings in it are as peers sent them: they become text, never markup.

const PERIOD = 1000; // ms
const PATIENCE = 5000; // ms, for one answer
const OLD = 4; // s after which what is shown is no news
const EXPIRY = 120; // s after which the server forgets a silent instance
const HOUR = 3600; // s
const ROWS = 500; // of a table that are drawn: thousands would hold up the browser

const STATES = {
  alive: { shape: "●", word: "alive", kind: "good", rank: 2 },
  late: { shape: "▲", word: "late", kind: "bad", rank: 0 },
  not_back: { shape: "◆", word: "not back", kind: "warn", rank: 1 },
};
const FLAGS = {
  new: "new",
  same_identity: "same identity twice",
  same_camera: "shares a camera",
  huge_count: "huge count",
};

let status = null; // the newest that came
let heard = 0; // when it came, by this machine's clock in ms
let trouble = ""; // why nothing came the last time
const view = { sort: "identity", descending: false, feature: "", open: new Set() };

const byId = (id) => document.getElementById(id);

// A new element; children are elements or texts.
function make(name, attributes = {}, ...children) {
  const element = document.createElement(name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  element.append(...children.map((child) => (child instanceof Node ? child : String(child))));
  return element;
}

// Text of a peer's, which may hold marks that turn the direction of what follows.
const foreign = (text) => make("bdi", {}, text);

// --- times

function age(seconds) {
  const whole = Math.max(0, Math.round(seconds));
  if (whole < 2 * 60) return `${whole} s`;
  if (whole < 2 * HOUR) return `${Math.floor(whole / 60)} min`;
  if (whole < 48 * HOUR) return `${Math.floor(whole / HOUR)} h`;
  return `${Math.floor(whole / (24 * HOUR))} d`;
}

const two = (number) => String(number).padStart(2, "0");

const dateOf = (time) => {
  const date = new Date(time * 1000);
  return `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())}`;
};

// Local time, with its date if that is not today's.
function moment(time) {
  if (!time) return "never";
  const date = new Date(time * 1000);
  const clock = `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`;
  return isToday(time) ? clock : `${dateOf(time)} ${clock}`;
}

const isToday = (time) => dateOf(time) === dateOf(status.server.time);

// --- keeping what is on the page, so that focus and selection stay while the figures change

function become(old, fresh) {
  if (old.isEqualNode(fresh)) return;
  if (old.nodeType === Node.TEXT_NODE) {
    old.data = fresh.data;
    return;
  }
  for (const { name } of [...old.attributes]) if (!fresh.hasAttribute(name)) old.removeAttribute(name);
  for (const { name, value } of fresh.attributes) if (old.getAttribute(name) !== value) old.setAttribute(name, value);
  fill(old, [...fresh.childNodes]);
}

// Makes `fresh` the children of `parent`. Those with a data-key are the same as the old ones with that key.
function fill(parent, fresh) {
  const keyed = new Map();
  for (const child of parent.children) if (child.dataset.key !== undefined) keyed.set(child.dataset.key, child);
  fresh.forEach((node, place) => {
    const key = node.dataset?.key;
    const current = parent.childNodes[place];
    const old = key === undefined ? current : keyed.get(key);
    if (old && old.nodeName === node.nodeName && old.dataset?.key === key) {
      if (old !== current) parent.insertBefore(old, current);
      become(old, node);
    } else {
      parent.insertBefore(node, current ?? null);
    }
  });
  while (parent.childNodes.length > fresh.length) parent.lastChild.remove();
}

// --- tables

// A column is [title, cell of a row, class of the cell, name to sort by].
function head([title, , kind = "", sort = ""]) {
  if (!sort) return make("th", { scope: "col", class: kind }, title);
  const isSorted = view.sort === sort;
  const mark = isSorted ? (view.descending ? " ▼" : " ▲") : "";
  const order = isSorted ? (view.descending ? "descending" : "ascending") : "none";
  const button = make("button", { type: "button", "data-sort": sort }, title + mark);
  return make("th", { scope: "col", class: kind, "aria-sort": order }, button);
}

function cell([title, content, kind = ""], row) {
  const inside = content(row);
  const isEmpty = inside === "" || inside === null;
  const box = make("div", {}, isEmpty ? "" : inside);
  return make("td", { class: isEmpty ? "empty" : kind, "data-head": title }, box);
}

function drawTable(id, columns, rows, keyOf, whenEmpty, details = () => null) {
  const table = byId(id);
  fill(table.tHead, [make("tr", {}, ...columns.map(head))]);
  const lines = [];
  for (const row of rows.slice(0, ROWS)) {
    lines.push(make("tr", { "data-key": keyOf(row) }, ...columns.map((column) => cell(column, row))));
    const more = details(row);
    if (more) {
      const inside = make("td", { colspan: columns.length }, more);
      lines.push(make("tr", { "data-key": `${keyOf(row)} details`, class: "details" }, inside));
    }
  }
  const said = rows.length > ROWS ? `${ROWS} of ${rows.length} are shown` : rows.length ? "" : whenEmpty;
  if (said) lines.push(make("tr", { class: "said" }, make("td", { colspan: columns.length, class: "faint" }, said)));
  fill(table.tBodies[0], lines);
}

// --- instances

const silence = (instance) => status.server.time - instance.last;

function stateOf(instance) {
  const state = STATES[instance.state] ?? { shape: "?", word: instance.state, kind: "warn" };
  return make("span", { class: state.kind }, `${state.shape} ${state.word}`);
}

function nameOf(instance) {
  const isOpen = view.open.has(instance.key);
  const attributes = { type: "button", class: "name", "data-open": instance.key, "aria-expanded": isOpen };
  return make("button", attributes, foreign(instance.identity));
}

function chip(feature, count) {
  const attributes = { type: "button", class: "chip", "data-feature": feature };
  attributes["aria-pressed"] = view.feature === feature;
  return make("button", attributes, `${feature} ${count}`);
}

const chips = (counts) => make("div", { class: "chips" }, ...Object.entries(counts).map((pair) => chip(...pair)));

function ageOf(instance) {
  const seconds = Math.max(0, silence(instance));
  const kind = (STATES[instance.state] ?? STATES.late).kind;
  const bar = make("progress", { max: EXPIRY, value: Math.min(seconds, EXPIRY), class: kind, "aria-hidden": "true" });
  return make("span", {}, age(seconds), bar);
}

const flagsOf = (instance) => instance.flags.map((flag) => FLAGS[flag] ?? flag).join(", ");

const used = (instance) => Object.values(instance.counts).reduce((sum, count) => sum + count, 0);

const INSTANCE_COLUMNS = [
  ["State", stateOf, "state", "state"],
  ["Identity", nameOf, "", "identity"],
  ["Container", (instance) => instance.container && foreign(instance.container), "", "container"],
  ["Address", (instance) => foreign(instance.address), "address", "address"],
  ["Cameras", (instance) => instance.cameras_count, "number", "cameras"],
  ["In use", (instance) => chips(instance.counts), "used", "used"],
  ["Last report", ageOf, "time", "age"],
  ["Flags", (instance) => flagsOf(instance), "", "flags"],
];

const SORTS = {
  state: (instance) => STATES[instance.state]?.rank ?? 1,
  identity: (instance) => instance.identity,
  container: (instance) => instance.container,
  address: (instance) => instance.address,
  cameras: (instance) => instance.cameras_count,
  used: (instance) => (view.feature ? (instance.counts[view.feature] ?? 0) : used(instance)),
  age: silence,
  flags: flagsOf,
};
const LARGEST_FIRST = new Set(["cameras", "used", "age"]);
const natural = new Intl.Collator(undefined, { numeric: true });

function compare(left, right) {
  const [a, b] = [SORTS[view.sort](left), SORTS[view.sort](right)];
  const order = typeof a === "number" ? a - b : natural.compare(a, b);
  return (view.descending ? -order : order) || natural.compare(left.key, right.key);
}

function holds(instance, wanted) {
  const texts = [instance.identity, instance.container, instance.address, ...instance.cameras];
  return texts.some((text) => text.toLowerCase().includes(wanted));
}

function detailsOf(instance) {
  if (!view.open.has(instance.key)) return null;
  const hidden = instance.cameras_count - instance.cameras.length;
  const urls = instance.cameras.map((url) => make("li", {}, foreign(url)));
  if (hidden > 0) urls.push(make("li", { class: "faint" }, `and ${hidden} more`));
  const facts = [
    `first report ${moment(instance.first)}, ${instance.reports} since`,
    instance.period > 0 ? `every ${instance.period.toFixed(1)} s` : "one report so far",
    `layout ${instance.layout}`,
    `key ${instance.key}`,
  ];
  return make("div", {}, facts.join("; "), make("ul", {}, ...urls));
}

function drawInstances() {
  const wanted = byId("search").value.trim().toLowerCase();
  const found = status.instances
    .filter((instance) => !view.feature || instance.counts[view.feature])
    .filter((instance) => !wanted || holds(instance, wanted))
    .sort(compare);
  drawTable("instances", INSTANCE_COLUMNS, found, (instance) => instance.key, "none", detailsOf);
  byId("all").hidden = !view.feature;
  byId("all").textContent = `Users of ${view.feature} only: show all`;
  const sum = found.reduce((total, instance) => total + (instance.counts[view.feature] ?? 0), 0);
  const users = view.feature ? ` use ${view.feature}, ${sum} in all` : "";
  const text = view.feature || wanted ? `${found.length} of ${status.instances.length} instances${users}` : "";
  if (byId("found").textContent !== text) byId("found").textContent = text; // spoken at each change
}

// --- the other tables

const LOSS_COLUMNS = [
  ["Lost", (loss) => moment(loss.lost), "time"],
  ["Identity", (loss) => foreign(loss.identity)],
  ["Address", (loss) => foreign(loss.address), "address"],
  ["Last report", (loss) => moment(loss.last), "time"],
  ["Why", (loss) => (loss.reason === "not_back" ? "not back after a rebuild" : loss.reason)],
  ["Returned", (loss) => (loss.returned ? moment(loss.returned) : "no"), "time"],
  ["It used", (loss) => Object.entries(loss.counts).map(([name, count]) => `${name} ${count}`).join(", ")],
];
const REFUSAL_COLUMNS = [
  ["Last", (refusal) => moment(refusal.last), "time"],
  ["First", (refusal) => moment(refusal.first), "time"],
  ["Address", (refusal) => foreign(refusal.address), "address"],
  ["Identity", (refusal) => refusal.identity && foreign(refusal.identity)],
  ["Code", (refusal) => refusal.code, "time"],
  ["Meaning", (refusal) => refusal.meaning],
  ["Times", (refusal) => refusal.count, "number"],
];
const FEATURE_COLUMNS = [
  ["Feature", (use) => chip(use.feature, "")],
  ["Now", (use) => use.now, "number"],
  ["Today's peak", (use) => use.peak, "number"],
  ["At", (use) => (use.time ? moment(use.time) : ""), "time"],
];

function uses() {
  const features = new Map();
  const of = (feature) => {
    if (!features.has(feature)) features.set(feature, { feature, now: 0, peak: 0, time: 0 });
    return features.get(feature);
  };
  for (const [feature, count] of Object.entries(status.totals.counts)) of(feature).now = count;
  for (const hour of status.hours) {
    for (const [feature, [peak, time]] of Object.entries(hour.features)) {
      if (isToday(time) && peak > of(feature).peak) Object.assign(of(feature), { peak, time });
    }
  }
  return [...features.values()];
}

// --- the figures

function drawFigures() {
  const { server, instances, losses, refusals } = status;
  const number = (state) => instances.filter((instance) => instance.state === state).length;
  const cameras = instances.reduce((sum, instance) => sum + instance.cameras_count, 0);
  const refused = refusals.filter((refusal) => server.time - refusal.last < HOUR);
  const addresses = new Set(refused.map((refusal) => refusal.address)).size;
  const figures = [
    ["Alive", number("alive"), "good"],
    ["Late", number("late"), number("late") ? "bad" : ""],
    ["Not back", number("not_back"), number("not_back") ? "warn" : ""],
    ["Lost today", losses.filter((loss) => isToday(loss.lost)).length],
    ["Cameras", cameras],
    ["Reports a second", `${server.reports_per_second.toFixed(1)} of ${server.reports_per_second_limit}`],
    ["Queue", `${server.queue} of ${server.queue_limit}`],
    ["Refused in the last hour", addresses === 1 ? "1 sender" : `${addresses} senders`, addresses ? "bad" : ""],
  ];
  const box = ([title, value, kind = ""]) =>
    make("div", {}, make("dt", {}, title), make("dd", { class: kind }, value));
  fill(byId("figures"), figures.map(box));
}

function drawServer() {
  const { server } = status;
  byId("host").textContent = server.host;
  const clock = `${dateOf(server.time)} ${moment(server.time)}`;
  byId("about").textContent = `version ${server.version}, up ${age(server.time - server.started)}, ${clock}`;
  document.title = `${server.host}: KorvaneUGS`;
}

function draw() {
  byId("main").hidden = false;
  drawServer();
  drawFigures();
  drawInstances();
  drawTable("losses", LOSS_COLUMNS, status.losses, (loss) => `${loss.key} ${loss.lost}`, "none since the server's start");
  const keyOf = (refusal) => JSON.stringify([refusal.address, refusal.code]);
  drawTable("refusals", REFUSAL_COLUMNS, status.refusals, keyOf, "none since the server's start");
  drawTable("features", FEATURE_COLUMNS, uses(), (use) => use.feature, "nothing");
}

// Whether what is shown is news.
function drawState() {
  const seconds = Math.floor((Date.now() - heard) / 1000);
  const isOld = !status || seconds >= OLD;
  const why = trouble ? `: ${trouble}` : "";
  let kind = "good";
  let text = "● live";
  if (!status) [kind, text] = trouble ? ["bad", `▲ no status${why}`] : ["", "asking the server …"];
  else if (isOld) [kind, text] = ["bad", `▲ no news for ${age(seconds)}${why}`];
  else if (!status.server.serving) [kind, text] = ["bad", "▲ live, but the port is not open: nobody can report"];
  byId("live").className = kind;
  byId("live").textContent = text;
  const said = isOld && status ? `no news${why}` : text; // not each second anew
  if (byId("said").textContent !== said) byId("said").textContent = said;
  document.body.classList.toggle("stale", isOld && status !== null);
}

// --- asking

async function ask() {
  try {
    const answer = await fetch("status", { signal: AbortSignal.timeout(PATIENCE), cache: "no-store" });
    const next = await answer.json();
    trouble = answer.ok ? "" : next.error;
    if (!answer.ok) return;
    if (status?.server.time !== next.server.time) heard = Date.now();
    status = next;
    draw();
  } catch {
    trouble = "ugs page does not answer";
  }
}

async function askForEver() {
  await ask();
  drawState();
  setTimeout(askForEver, PERIOD);
}

// --- what the user does

document.addEventListener("click", (event) => {
  const { sort, feature, open } = event.target.closest("button")?.dataset ?? {};
  if (sort) {
    view.descending = view.sort === sort ? !view.descending : LARGEST_FIRST.has(sort);
    view.sort = sort;
  }
  if (feature) view.feature = view.feature === feature ? "" : feature;
  if (open !== undefined && !view.open.delete(open)) view.open.add(open);
  if (event.target.id === "all") view.feature = "";
  if (status) draw();
});
byId("search").addEventListener("input", () => status && drawInstances());

setInterval(drawState, PERIOD); // counts on while an answer is waited for
askForEver();
