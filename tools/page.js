// The live page. Strings in the status are as peers sent them: they become text, never markup.
import { drawFigures, drawState } from "./page-figures.js";
import { byId } from "./page-parts.js";
import { follow, news } from "./page-stream.js";
import { LARGEST_FIRST, ROWS, drawInstances, drawOthers, history, view } from "./page-tables.js";
import { drawWall } from "./page-wall.js";

const isWall = new URLSearchParams(location.search).has("wall");
const MONTH_PERIOD = 5 * 60_000; // ms

function draw() {
  if (!news.status) return;
  byId("main").hidden = false;
  drawFigures();
  if (isWall) {
    drawWall();
  } else {
    drawInstances();
    drawOthers();
  }
}

// --- the history, if one is kept

async function fromHistory(path) {
  if (!news.hasHistory) return null;
  try {
    const answer = await fetch(path, { cache: "no-store" });
    return answer.ok ? await answer.json() : null;
  } catch {
    return null; // the stream says that nothing answers
  }
}

async function readMonth() {
  const month = new Date(news.status.server.time * 1000).toISOString().slice(0, 7);
  history.month = (await fromHistory(`history?month=${month}`))?.features ?? history.month;
}

let monthRead = 0;

function readHistory() {
  if (isWall || !news.status || Date.now() - monthRead < MONTH_PERIOD) return;
  monthRead = Date.now();
  readMonth();
}

async function readDay(key) {
  const day = await fromHistory(`day?key=${encodeURIComponent(key)}`);
  if (day) history.days.set(key, day.hours);
  draw();
}

// --- what the reader does

document.addEventListener("click", (event) => {
  const button = event.target.closest("button");
  if (!button) return;
  const { sort, feature, open } = button.dataset;
  if (sort) {
    view.descending = view.sort === sort ? !view.descending : LARGEST_FIRST.has(sort);
    view.sort = sort;
  }
  if (feature) view.feature = view.feature === feature ? "" : feature;
  if (open !== undefined && !view.open.delete(open)) {
    view.open.add(open);
    readDay(open);
  }
  if (button.id === "all") view.feature = "";
  if (button.id === "more") view.rows += 5 * ROWS;
  draw();
});
byId("search").addEventListener("input", () => news.status && drawInstances());

document.body.classList.toggle("wall", isWall);
setInterval(drawState, 1000); // counts on while nothing comes
follow(() => {
  draw();
  drawState();
  readHistory();
});
