// The tables, whose rows stay the same elements while what they show changes.
import {
  EXPIRY,
  age,
  become,
  byId,
  dateOf,
  fill,
  foreign,
  hasSignedOff,
  make,
  moment,
  place,
  say,
  sparkline,
  stateOf,
} from "./page-parts.js";
import { news } from "./page-stream.js";

export const ROWS = 200; // of a table that are drawn at first: thousands would hold up the browser

const FLAGS = {
  new: "new",
  same_identity: "same identity twice",
  same_camera: "shares a camera",
  huge_count: "huge count",
};

const REASONS = { not_back: "not back after a rebuild", signed_off: "signed off" };

// What the reader chose.
export const view = { sort: "state", descending: false, feature: "", open: new Set(), rows: ROWS };
// What the history says, if there is one.
export const history = { month: null, days: new Map() };

const now = () => news.status.server.time;

function head([title, , kind = "", sort = ""]) {
  if (!sort) return make("th", { scope: "col", class: kind }, title);
  const isSorted = view.sort === sort;
  const order = isSorted ? (view.descending ? "descending" : "ascending") : "none";
  const mark = isSorted ? (view.descending ? " ↓" : " ↑") : "";
  const button = make("button", { type: "button", "data-sort": sort }, title + mark);
  return make("th", { scope: "col", class: kind, "aria-sort": order }, button);
}

function cell([title, content, kind = ""], row) {
  const inside = content(row);
  const isEmpty = inside === "" || inside === null;
  const box = make("div", {}, isEmpty ? "" : inside);
  return make("td", { class: isEmpty ? "empty" : kind, "data-head": title }, box);
}

const kept = new Map(); // by table: the lines of each row, by key, with what they were made of

// The row's line and that of its details; those of before if nothing of them changed.
function linesOf(old, row, columns, stamp, details) {
  if (old && old.row === row && old.stamp === stamp) return old;
  const line = make("tr", { class: row.state ?? "" }, ...columns.map((column) => cell(column, row)));
  const inside = details(row);
  const more = inside && make("tr", { class: "details" }, make("td", { colspan: columns.length }, inside));
  const nodes = [old ? become(old.nodes[0], line) : line];
  if (more) nodes.push(old?.nodes[1] ? become(old.nodes[1], more) : more);
  return { row, stamp, nodes };
}

function drawTable(id, columns, rows, { keyOf, whenEmpty, details = () => null, stampOf = () => "", limit = ROWS }) {
  const table = byId(id);
  fill(table.tHead, [make("tr", {}, ...columns.map(head))]);
  const before = kept.get(id) ?? new Map();
  const lines = new Map();
  for (const row of rows.slice(0, limit)) {
    const key = keyOf(row);
    lines.set(key, linesOf(before.get(key), row, columns, stampOf(row), details));
  }
  kept.set(id, lines);
  const nodes = [...lines.values()].flatMap((line) => line.nodes);
  const said = rows.length === 0 ? whenEmpty : "";
  if (said) nodes.push(make("tr", { class: "said" }, make("td", { colspan: columns.length }, said)));
  place(table.tBodies[0], nodes);
}

// --- instances

const silence = (instance) => Math.max(0, now() - instance.last);

function stateCell(instance) {
  const { kind, shape, word } = stateOf(instance);
  return make("span", { class: kind }, make("span", { class: "shape", "aria-hidden": "true" }, shape), word);
}

function nameOf(instance) {
  const isOpen = view.open.has(instance.key);
  const attributes = { type: "button", class: "name", "data-open": instance.key, "aria-expanded": isOpen };
  return make("button", attributes, foreign(instance.identity || "(no name)"));
}

function chip(feature, count = "") {
  const attributes = { type: "button", class: "chip", "data-feature": feature };
  attributes["aria-pressed"] = view.feature === feature;
  return make("button", attributes, feature, ...(count === "" ? [] : [" ", make("b", {}, count)]));
}

const chips = (counts) => make("div", { class: "chips" }, ...Object.entries(counts).map((pair) => chip(...pair)));

function ageCell(instance) {
  const seconds = silence(instance);
  const value = Math.min(seconds, EXPIRY);
  const bar = make("progress", { max: EXPIRY, value, class: stateOf(instance).kind, "aria-hidden": "true" });
  return make("div", { class: "age", "data-age": instance.key }, make("span", {}, age(seconds)), bar);
}

const flagsOf = (instance) => instance.flags.map((flag) => FLAGS[flag] ?? flag).join(", ");
const used = (instance) => Object.values(instance.counts).reduce((sum, count) => sum + count, 0);

const INSTANCE_COLUMNS = [
  ["State", stateCell, "state", "state"],
  ["Identity", nameOf, "identity", "identity"],
  ["Container", (instance) => instance.container && foreign(instance.container), "container", "container"],
  ["Address", (instance) => foreign(instance.address), "address", "address"],
  ["Cameras", (instance) => instance.cameras_count, "number", "cameras"],
  ["In use", (instance) => chips(instance.counts), "used", "used"],
  ["Last report", ageCell, "time", "age"],
  ["Flags", flagsOf, "flags", "flags"],
];

const SORTS = {
  state: (instance) => stateOf(instance).rank,
  identity: (instance) => instance.identity,
  container: (instance) => instance.container,
  address: (instance) => instance.address,
  cameras: (instance) => instance.cameras_count,
  used: (instance) => (view.feature ? (instance.counts[view.feature] ?? 0) : used(instance)),
  age: silence,
  flags: flagsOf,
};
export const LARGEST_FIRST = new Set(["cameras", "used", "age", "flags"]);
const natural = new Intl.Collator(undefined, { numeric: true });

function compare(left, right) {
  const [a, b] = [SORTS[view.sort](left), SORTS[view.sort](right)];
  const order = typeof a === "number" ? a - b : natural.compare(a, b);
  return (view.descending ? -order : order) || natural.compare(left.identity, right.identity);
}

let order = []; // keys as they were sorted the last time: sorting them again is little work

function sorted(instances) {
  const known = order.filter((key) => instances.has(key));
  const isKnown = new Set(known);
  const fresh = [...instances.keys()].filter((key) => !isKnown.has(key));
  const rows = [...known, ...fresh].map((key) => instances.get(key)).sort(compare);
  order = rows.map((row) => row.key);
  return rows;
}

function holds(instance, wanted) {
  const texts = [instance.identity, instance.container, instance.address, ...instance.cameras];
  return texts.some((text) => text.toLowerCase().includes(wanted));
}

function dayOf(instance) {
  const hours = history.days.get(instance.key);
  if (!hours?.length) return "";
  const end = Math.floor(now() / 3600);
  const values = Array(24).fill(null);
  for (const { hour, camera_seconds: seconds } of hours) {
    const index = 23 - (end - Math.floor(hour / 3600));
    if (index >= 0 && index < 24) values[index] = seconds / 3600;
  }
  const sum = hours.reduce((total, hour) => total + hour.camera_seconds, 0) / 3600;
  const text = `${sum.toFixed(1)} camera-hours in the last 24 h`;
  return make("p", { class: "day" }, sparkline(values, text), text);
}

function detailsOf(instance) {
  if (!view.open.has(instance.key)) return null;
  const hidden = instance.cameras_count - instance.cameras.length;
  const urls = instance.cameras.map((url) => make("li", {}, foreign(url)));
  if (hidden > 0) urls.push(make("li", { class: "faint" }, `and ${hidden} more`));
  const facts = [
    `first report ${moment(instance.first, now())}, ${instance.reports} since`,
    instance.period > 0 ? `every ${instance.period.toFixed(1)} s` : "one report so far",
    `layout ${instance.layout}`,
    `key ${instance.key}`,
  ];
  return make("div", {}, make("p", {}, facts.join("; ")), dayOf(instance), make("ul", {}, ...urls));
}

export function drawInstances() {
  const { instances } = news.status;
  const wanted = byId("search").value.trim().toLowerCase();
  const found = sorted(instances)
    .filter((instance) => !view.feature || instance.counts[view.feature])
    .filter((instance) => !wanted || holds(instance, wanted));
  const stampOf = ({ key }) => {
    const isOpen = view.open.has(key);
    return `${view.feature} ${isOpen} ${isOpen && history.days.get(key)?.length}`;
  };
  const options = { keyOf: ({ key }) => key, whenEmpty: "none", details: detailsOf, stampOf, limit: view.rows };
  drawTable("instances", INSTANCE_COLUMNS, found, options);
  drawAges();
  byId("all").hidden = !view.feature;
  byId("all").textContent = `Users of ${view.feature} only: show all`;
  byId("more").hidden = found.length <= view.rows;
  byId("more").textContent = `${view.rows} of ${found.length} are shown: show more`;
  const sum = found.reduce((total, instance) => total + (instance.counts[view.feature] ?? 0), 0);
  const users = view.feature ? ` use ${view.feature}, ${sum} in all` : "";
  say("found", view.feature || wanted ? `${found.length} of ${instances.size}${users}` : "");
}

function drawAges() {
  for (const box of byId("instances").querySelectorAll("[data-age]")) {
    const seconds = silence(news.status.instances.get(box.dataset.age));
    const text = age(seconds);
    if (box.firstChild.textContent === text) continue;
    box.firstChild.textContent = text;
    box.lastChild.setAttribute("value", Math.min(seconds, EXPIRY));
  }
}

// --- the other tables

const LOSS_COLUMNS = [
  ["Lost", (loss) => moment(loss.lost, now()), "time"],
  ["Identity", (loss) => foreign(loss.identity), "identity"],
  ["Container", (loss) => loss.container && foreign(loss.container), "container"],
  ["Address", (loss) => foreign(loss.address), "address"],
  ["Last report", (loss) => moment(loss.last, now()), "time"],
  ["Why", (loss) => REASONS[loss.reason] ?? loss.reason, "words"],
  [
    "Returned",
    (loss) => {
      if (loss.returned) return moment(loss.returned, now());
      return hasSignedOff(loss) ? "no" : make("span", { class: "bad" }, "✕ no");
    },
    "time",
  ],
  ["It used", (loss) => Object.entries(loss.counts).map(([name, count]) => `${name} ${count}`).join(", "), "used"],
];
const REFUSAL_COLUMNS = [
  ["Last", (refusal) => moment(refusal.last, now()), "time"],
  ["First", (refusal) => moment(refusal.first, now()), "time"],
  ["Address", (refusal) => foreign(refusal.address), "address"],
  ["Identity", (refusal) => refusal.identity && foreign(refusal.identity), "identity"],
  ["Code", (refusal) => refusal.code, "time"],
  ["Meaning", (refusal) => refusal.meaning, "words"],
  ["Times", (refusal) => refusal.count, "number"],
];
const FEATURE_COLUMNS = [
  ["Feature", (use) => chip(use.feature), "identity"],
  ["Now", (use) => use.now, "number"],
  ["Today's peak", (use) => use.peak, "number"],
  ["At", (use) => (use.time ? moment(use.time, now()) : ""), "time"],
];
const MONTH_COLUMNS = [
  ["This month's peak", (use) => use.month.peak, "number"],
  ["On", (use) => moment(use.month.peak_time, now()), "time"],
];
const LINE_COLUMN = ["Last 48 hours", (use) => sparkline(use.hours, `${use.feature}, the last 48 hours`), "line"];

function uses() {
  const { totals, hours } = news.status;
  const end = Math.floor(now() / 3600);
  const features = new Map();
  const of = (feature) => {
    const month = history.month?.[feature] ?? { peak: 0, peak_time: 0 };
    const fresh = { feature, now: 0, peak: 0, time: 0, month: { ...month }, hours: Array(48).fill(null) };
    if (!features.has(feature)) features.set(feature, fresh);
    return features.get(feature);
  };
  for (const [feature, count] of Object.entries(totals.counts)) of(feature).now = count;
  for (const feature of Object.keys(history.month ?? {})) of(feature);
  for (const hour of hours) for (const feature of Object.keys(hour.features)) of(feature);
  for (const hour of hours) {
    const index = 47 - (end - Math.floor(hour.hour / 3600));
    for (const use of features.values()) {
      const [peak, time] = hour.features[use.feature] ?? [0, 0];
      if (index >= 0 && index < 48) use.hours[index] = peak;
      if (time && dateOf(time) === dateOf(now()) && peak > use.peak) Object.assign(use, { peak, time });
    }
  }
  for (const use of features.values()) {
    if (use.peak > use.month.peak) use.month = { peak: use.peak, peak_time: use.time };
  }
  return [...features.values()];
}

export function drawOthers() {
  const { losses, refusals } = news.status;
  const whenEmpty = "none since the server's start";
  drawTable("losses", LOSS_COLUMNS, losses, { keyOf: (loss) => `${loss.key} ${loss.lost}`, whenEmpty });
  const keyOf = (refusal) => JSON.stringify([refusal.address, refusal.code]);
  drawTable("refusals", REFUSAL_COLUMNS, refusals, { keyOf, whenEmpty });
  const columns = [...FEATURE_COLUMNS, ...(history.month ? MONTH_COLUMNS : []), LINE_COLUMN];
  drawTable("features", columns, uses(), { keyOf: (use) => use.feature, whenEmpty: "nothing is in use" });
}
