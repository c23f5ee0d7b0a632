// When to report, and how long to wait. All in seconds.

import {inspect} from "node:util";
import {badUsage} from "./errors.mjs";

const FIRST_PAUSE = 10;
const LONGEST_PAUSE = 100;

function requireSeconds(name, value, least, most) {
  if (typeof value === "number" && value >= least && value <= most) return value;
  throw badUsage(`the ${name} must be from ${least} to ${most} seconds, not ${inspect(value, {depth: 0})}`);
}

// The server forgets an instance after 120 s.
export const requirePeriod = (period) => requireSeconds("period", period, 1, 118);

// A value in milliseconds is a frequent mistake, and would wait for hours.
export const requireTimeout = (timeout) => requireSeconds("timeout", timeout, 0.001, 600);

// The pause after so many failures in a row (at least one): random, lest all instances of a server that was
// restarted come back at one moment. With a time-out of 30 s and a period of up to 75 s, the second try comes
// within 118 s of the last report. `random` is from 0 to 1.
export function pauseAfter(failures, period, random = Math.random()) {
  const most = Math.min(Math.min(FIRST_PAUSE, period) * 2 ** (failures - 1), LONGEST_PAUSE);
  const least = failures === 1 ? 0 : most / 2;
  return least + random * (most - least);
}

export const now = () => performance.now() / 1000;
