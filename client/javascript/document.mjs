// The document that reports a usage, and all that is refused before anything is sent.

import {types, inspect} from "node:util";
import {badUsage} from "./errors.mjs";

// Every layout carries the counts of the one before it and adds its own.
const ADDED_COUNTS = {
  legacy: ["MaxCameras", "ABD", "AN", "CR", "ClassTier1", "ClassTier2", "ClassTier3", "Perimeter", "Dwell", "Collision",
           "NeuralPack"],
  v4: ["PX", "Plates", "Generative", "ClassTier0"],
  v5: ["RemoteTier1", "RemoteTier2", "RemoteTier3", "RemoteTier4"],
  v6: ["FaceTier1", "FaceTier2"],
};
const MEMBERS = ["identity", "container", "cameras", "counts", "layout"];
const MOST = 2 ** 32 - 1;

// The names of all layouts, oldest first.
export const layoutNames = () => Object.keys(ADDED_COUNTS);

// The counts that `layout` carries, in the order of the document.
export function countKeys(layout = "v6") {
  const last = layoutNames().indexOf(layout);
  if (last < 0) throw badUsage(`there is no layout ${typeof layout === "string" ? `"${layout}"` : inspect(layout)}`);
  return Object.values(ADDED_COUNTS).slice(0, last + 1).flat();
}

// The Levenshtein distance of two names, whatever their case.
function distance(a, b) {
  let row = Array.from({length: b.length + 1}, (_, i) => i);
  for (const [i, letter] of [...a.toLowerCase()].entries()) {
    const next = [i + 1];
    for (let j = 0; j < b.length; ++j) {
      next.push(Math.min(row[j] + (letter === b[j].toLowerCase() ? 0 : 1), next[j] + 1, row[j + 1] + 1));
    }
    row = next;
  }
  return row[b.length];
}

// The one of `names` that `typed` was probably meant to be.
export function nearest(typed, names) {
  return names.reduce((best, name) => (distance(typed, name) < distance(typed, best) ? name : best));
}

function requireType(isRight, field, type, value) {
  if (!isRight) throw badUsage(`${field} must be ${type}, not ${inspect(value, {depth: 0})}`);
}

// A Map would look like an object without members, and report nothing.
const isRecord = (value) =>
  typeof value === "object" && value !== null && !Array.isArray(value) && !types.isMap(value) && !types.isSet(value);

// The server would read a text up to its first NUL, and another one than was meant where a surrogate is alone.
function requireText(field, text) {
  if (text.includes("\0")) throw badUsage(`${field} holds a NUL byte`);
  if (/\p{Surrogate}/u.test(text)) throw badUsage(`${field} is not UTF-8`);
}

function requireTypes(usage) {
  requireType(isRecord(usage), "the usage", "an object", usage);
  // A misspelt member would silently report nothing.
  const unknown = Object.keys(usage).find((member) => !MEMBERS.includes(member));
  if (unknown !== undefined) {
    throw badUsage(`there is no member "${unknown}" here; did you mean ${nearest(unknown, MEMBERS)}?`);
  }
  const {identity, container = "", cameras, counts = {}} = usage;
  requireType(typeof identity === "string", "KorvaneID", "a string", identity);
  requireType(typeof container === "string", "DockerID", "a string", container);
  const areTexts = Array.isArray(cameras) && Array.from(cameras).every((url) => typeof url === "string");
  requireType(areTexts, "CamRtspUrls", "an array of strings", cameras);
  requireType(isRecord(counts), "InUse", "an object", counts);
}

function requireCounts(counts, layout, keys) {
  for (const [key, count] of Object.entries(counts)) {
    if (!keys.includes(key)) {
      throw badUsage(`layout ${layout} carries no count "${key}"; did you mean ${nearest(key, keys)}? It has ` +
                     keys.join(" "));
    }
    if (!Number.isInteger(count) || count < 0 || count > MOST) {
      throw badUsage(`count ${key} is ${inspect(count, {depth: 0})}, not from 0 to ${MOST}`);
    }
  }
}

// The JSON document that reports `usage`. Throws UgsError (BadUsage), with a text that names the field, for what
// the server would refuse or misread.
export function writeDocument(usage) {
  requireTypes(usage);
  const {identity, container = "", cameras, layout = "v6"} = usage;
  const counts = {...usage.counts}; // read once, and without what it inherits
  const keys = countKeys(layout);
  requireCounts(counts, layout, keys);
  if (identity === "") throw badUsage("KorvaneID is empty");
  if (cameras.every((url) => url === "")) throw badUsage("CamRtspUrls holds no URL");
  requireText("KorvaneID", identity);
  requireText("DockerID", container);
  for (const url of cameras) requireText("CamRtspUrls", url);
  const request = {KorvaneID: identity, DockerID: container, CamRtspUrls: cameras,
                   InUse: Object.fromEntries(keys.map((key) => [key, counts[key] ?? 0]))};
  return JSON.stringify(layout === "legacy" ? request : {[layout]: request});
}
