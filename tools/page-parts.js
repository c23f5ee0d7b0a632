// Small parts that the rest is made of: elements, times, and what the server's words look like.

export const HOUR = 3600; // s
export const EXPIRY = 120; // s after which the server forgets a silent instance

export const STATES = {
  alive: { shape: "●", word: "alive", kind: "good", rank: 2 },
  late: { shape: "▲", word: "late", kind: "bad", rank: 0 },
  not_back: { shape: "◆", word: "not back", kind: "warn", rank: 1 },
  signed_off: { shape: "○", word: "signed off", kind: "", rank: 2 },
};
export const hasSignedOff = (loss) => loss.reason === "signed_off";
export const stateOf = (instance) =>
  STATES[instance.state] ?? { shape: "?", word: instance.state, kind: "warn", rank: 1 };

export const byId = (id) => document.getElementById(id);

function equip(element, attributes, children) {
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  element.append(...children.map((child) => (child instanceof Node ? child : String(child))));
  return element;
}

// A new element; children are elements or texts, which never become markup.
export const make = (name, attributes = {}, ...children) => equip(document.createElement(name), attributes, children);

export const draw = (name, attributes = {}, ...children) =>
  equip(document.createElementNS("http://www.w3.org/2000/svg", name), attributes, children);

// Text of a peer's, which may hold marks that turn the direction of what follows.
export const foreign = (text) => make("bdi", {}, text);

// --- times

export function age(seconds) {
  const whole = Math.max(0, Math.round(seconds));
  if (whole < 2 * 60) return `${whole} s`;
  if (whole < 2 * HOUR) return `${Math.floor(whole / 60)} min`;
  if (whole < 48 * HOUR) return `${Math.floor(whole / HOUR)} h`;
  return `${Math.floor(whole / (24 * HOUR))} days`;
}

const two = (number) => String(number).padStart(2, "0");

export function dateOf(time) {
  const date = new Date(time * 1000);
  return `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())}`;
}

export function clockOf(time) {
  const date = new Date(time * 1000);
  return `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`;
}

// Local time, with its date if that is not the one of `now`.
export function moment(time, now) {
  if (!time) return "never";
  return dateOf(time) === dateOf(now) ? clockOf(time) : `${dateOf(time)} ${clockOf(time)}`;
}

// --- keeping what is on the page, so that focus and selection stay while the figures change

// Returns the one of the two that is in the page then.
export function become(old, fresh) {
  if (old.isEqualNode(fresh)) return old;
  if (old.nodeType === Node.TEXT_NODE && fresh.nodeType === Node.TEXT_NODE) {
    old.data = fresh.data;
    return old;
  }
  if (old.nodeName !== fresh.nodeName) {
    old.replaceWith(fresh);
    return fresh;
  }
  for (const { name } of [...old.attributes]) if (!fresh.hasAttribute(name)) old.removeAttribute(name);
  for (const { name, value } of fresh.attributes) if (old.getAttribute(name) !== value) old.setAttribute(name, value);
  fill(old, [...fresh.childNodes]);
  return old;
}

export function fill(parent, children) {
  children.forEach((child, index) => {
    const old = parent.childNodes[index];
    if (old) become(old, child);
    else parent.append(child);
  });
  while (parent.childNodes.length > children.length) parent.lastChild.remove();
}

// Puts these nodes into `parent`, in this order, and touches none that is in its place. A node that had the
// focus keeps it.
export function place(parent, nodes) {
  const focused = document.activeElement;
  let next = parent.firstChild;
  for (const node of nodes) {
    if (node === next) next = next.nextSibling;
    else parent.insertBefore(node, next);
  }
  while (next) {
    const after = next.nextSibling;
    next.remove();
    next = after;
  }
  if (focused !== document.activeElement && focused?.isConnected) focused.focus({ preventScroll: true });
}

// Changes what a screen reader would speak only if it is new.
export function say(id, text) {
  if (byId(id).textContent !== text) byId(id).textContent = text;
}

// --- a line of values at equal distances, the newest last; null is a gap

const WIDTH = 160;
const HEIGHT = 28;

export function sparkline(values, label) {
  const top = Math.max(1, ...values.filter((value) => value !== null));
  const x = (index) => ((index / Math.max(1, values.length - 1)) * (WIDTH - 6) + 3).toFixed(1);
  const y = (value) => (HEIGHT - 3 - (value / top) * (HEIGHT - 6)).toFixed(1);
  let path = "";
  values.forEach((value, index) => {
    if (value === null) return;
    const isFirst = index === 0 || values[index - 1] === null;
    path += `${isFirst ? "M" : "L"}${x(index)} ${y(value)}`;
    if (isFirst && (values[index + 1] ?? null) === null) path += "h0.1"; // or a lone value would not be seen
  });
  const lines = [draw("path", { class: "base", d: `M0 ${HEIGHT - 1}H${WIDTH}` }), draw("path", { d: path })];
  const last = values.length - 1;
  if (values[last] !== null) lines.push(draw("circle", { cx: x(last), cy: y(values[last]), r: 2.5 }));
  const attributes = { class: "spark", viewBox: `0 0 ${WIDTH} ${HEIGHT}`, role: "img", "aria-label": label };
  return draw("svg", attributes, ...lines);
}
