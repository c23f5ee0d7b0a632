// The head of the page and its tiles.
import { HOUR, age, byId, clockOf, dateOf, fill, hasSignedOff, make, say } from "./page-parts.js";
import { news } from "./page-stream.js";

const OLD = 4; // s after which what is shown is no news
const CALM = 10; // s between two things that are said

const isToday = (time, now) => dateOf(time) === dateOf(now);

function load({ server }) {
  const { reports_per_second: rate, reports_per_second_limit: limit, queue, queue_limit: most } = server;
  const kind = limit && rate >= 0.75 * limit ? "warn" : "";
  return [
    ["Reports a second", rate.toFixed(1), `of ${limit}`, kind],
    ["Queue", queue, `of ${most}`, most && queue >= 0.9 * most ? "bad" : ""],
  ];
}

function figures(status) {
  const { server, instances, losses, refusals } = status;
  const states = { alive: 0, late: 0, not_back: 0 };
  let cameras = 0;
  for (const instance of instances.values()) {
    states[instance.state] = (states[instance.state] ?? 0) + 1;
    cameras += instance.cameras_count;
  }
  const lost = losses.filter((loss) => isToday(loss.lost, server.time) && !hasSignedOff(loss));
  const away = lost.filter((loss) => !loss.returned).length;
  const refused = refusals.filter((refusal) => server.time - refusal.last < HOUR);
  const senders = new Set(refused.map((refusal) => refusal.address)).size;
  return [
    ["Alive", states.alive, `of ${instances.size}`, instances.size && !states.late && !states.not_back ? "good" : ""],
    ["Late", states.late, states.late ? "▲ overdue" : "", states.late ? "bad" : ""],
    ["Not back", states.not_back, states.not_back ? "◆ since the rebuild" : "", states.not_back ? "warn" : ""],
    ["Lost today", lost.length, away ? `✕ ${away} still away` : "", away ? "bad" : ""],
    ["Cameras", cameras, ""],
    ...load(status),
    ["Refused in 1 h", senders, senders === 1 ? "sender" : "senders", senders ? "warn" : ""],
  ];
}

const tile = ([title, value, unit, kind = ""]) =>
  make("div", { class: kind }, make("dt", {}, title), make("dd", {}, value, make("small", {}, unit)));

export function drawFigures() {
  const { status } = news;
  const { server } = status;
  say("host", server.host);
  say("about", `KorvaneUGS ${server.version}, up ${age(server.time - server.started)}`);
  say("clock", `${dateOf(server.time)} ${clockOf(server.time)}`);
  document.title = `${server.host}: KorvaneUGS`;
  fill(byId("figures"), figures(status).map(tile));
}

// What is wrong in few words: it is spoken when it changes, and not each second.
function summary() {
  const states = [...news.status.instances.values()].map((instance) => instance.state);
  const number = (wanted) => states.filter((state) => state === wanted).length;
  const late = number("late");
  const away = number("not_back");
  const words = [late ? `${late} late` : "", away ? `${away} not back` : ""].filter(Boolean);
  return words.length ? `live, ${words.join(", ")}` : "live, all instances report";
}

let saidAt = 0;

// Whether what is shown is news.
export function drawState() {
  const { status, trouble } = news;
  const seconds = Math.floor((Date.now() - news.heard) / 1000);
  const isOld = status !== null && seconds >= OLD;
  const why = trouble ? `: ${trouble}` : "";
  let [kind, text] = ["good", "● live"];
  if (!status) [kind, text] = trouble ? ["bad", `▲ no status${why}`] : ["", "asking the server …"];
  else if (isOld) [kind, text] = ["bad", `▲ no news for ${age(seconds)}${why}`];
  else if (!status.server.serving) [kind, text] = ["bad", "▲ the port is not open: nobody can report"];
  byId("live").className = kind;
  say("live", text);
  document.body.classList.toggle("stale", isOld);
  if (Date.now() - saidAt < CALM * 1000) return;
  saidAt = Date.now();
  say("said", isOld ? `no news${why}` : status?.server.serving ? summary() : text);
}
