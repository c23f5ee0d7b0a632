// The wall: a tile for each instance, marked by shape and colour, to be read from afar.
import { age, byId, foreign, hasSignedOff, make, place, stateOf } from "./page-parts.js";
import { news } from "./page-stream.js";

const LOST = { shape: "✕", word: "lost", kind: "bad", rank: -1 };
const SIZES = [
  [60, "large"],
  [400, "middle"],
  [Infinity, "small"], // no room for a name
];

const tiles = new Map(); // by key: the element, and what it shows
const natural = new Intl.Collator(undefined, { numeric: true });

// Those that are there, and those that were lost today and are not back.
function standing() {
  const { instances, losses, server } = news.status;
  const rows = [...instances.values()].map((instance) => ({ ...stateOf(instance), ...instance }));
  const seen = new Set(instances.keys());
  for (const loss of losses) {
    if (hasSignedOff(loss)) continue;
    if (loss.returned || seen.has(loss.key) || server.time - loss.lost > 24 * 3600) continue;
    seen.add(loss.key);
    rows.push({ ...LOST, ...loss });
  }
  return rows.sort((left, right) => left.rank - right.rank || natural.compare(left.identity, right.identity));
}

function tileOf(row, size) {
  const isCalm = row.rank === 2;
  const seconds = isCalm ? "" : age(news.status.server.time - row.last);
  const shown = `${row.identity} ${row.word} ${size === "small" ? "" : seconds} ${size}`;
  const old = tiles.get(row.key);
  if (old?.shown === shown) return old.element;
  const mark = make("span", { class: "mark", role: "img", "aria-label": row.word }, size === "small" ? "" : row.shape);
  const element = make("div", { class: `tile ${row.kind} ${row.word.replace(" ", "-")}`, title: row.identity }, mark);
  if (size !== "small") element.append(make("span", { class: "who" }, foreign(row.identity)));
  if (size !== "small" && !isCalm) element.append(make("span", { class: "since" }, `${row.word} ${seconds}`));
  tiles.set(row.key, { element, shown });
  return element;
}

export function drawWall() {
  const wall = byId("wall");
  const rows = standing();
  const size = SIZES.find(([most]) => rows.length <= most)[1];
  wall.hidden = false;
  wall.className = size;
  place(wall, rows.map((row) => tileOf(row, size)));
  const keys = new Set(rows.map((row) => row.key));
  for (const key of tiles.keys()) if (!keys.has(key)) tiles.delete(key);
}
