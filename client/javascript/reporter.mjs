import {EventEmitter} from "node:events";
import {Client} from "./client.mjs";
import {writeDocument} from "./document.mjs";
import {UgsError, badUsage} from "./errors.mjs";
import {now, pauseAfter, requirePeriod, requireTimeout} from "./timing.mjs";

const textOf = (thrown) => (thrown instanceof Error ? thrown.message : String(thrown));

// A fixed usage is checked at once, and not changed by what its owner does to it later.
function sourceOf(usage) {
  if (typeof usage === "function") return usage;
  writeDocument(usage);
  const copy = structuredClone(usage);
  return () => copy;
}

export class Reporter extends EventEmitter {
  #client;
  #source;
  #period;
  #timeout;
  #due;
  #timer; // of the one thing that it waits for by itself: its next report, or its source
  #failures = 0; // in a row
  #isBusy = false;
  #again = false; // report at once when what is in flight has ended
  #signedOff = null; // the promise of signOff, and what resolves it
  #isClosed = false;

  constructor(server, key, usage, {period = 30, timeout = 30, listener} = {}) {
    super();
    this.#period = requirePeriod(period);
    this.#timeout = requireTimeout(timeout);
    this.#source = sourceOf(usage);
    if (listener !== undefined) this.on("outcome", listener);
    this.#client = new Client(server, key, {timeout});
    // A random moment of the first period: instances that start together do not report together.
    this.#schedule(now() + Math.random() * period);
  }

  reportNow() {
    if (this.#isClosed || this.#signedOff) return;
    this.#scheduleNow();
  }

  update(usage) {
    this.#source = sourceOf(usage);
    this.reportNow();
  }

  signOff() {
    if (this.#isClosed && !this.#signedOff) return Promise.resolve(undefined);
    if (!this.#signedOff) {
      this.#signedOff = {};
      this.#signedOff.promise = new Promise((resolve) => (this.#signedOff.resolve = resolve));
      this.#scheduleNow();
    }
    return this.#signedOff.promise;
  }

  close() {
    this.#isClosed = true;
    clearTimeout(this.#timer);
    this.#client.close();
    this.#signedOff?.resolve(undefined);
  }

  get counters() {
    return this.#client.counters;
  }

  #schedule(due) {
    clearTimeout(this.#timer);
    this.#due = due;
    this.#timer = setTimeout(() => this.#report(), Math.max(due - now(), 0) * 1000);
  }

  #scheduleNow() {
    if (this.#isBusy) this.#again = true;
    else this.#schedule(now());
  }

  async #report() {
    this.#isBusy = true;
    const isLast = this.#signedOff !== null;
    const outcome = await this.#outcome(isLast);
    this.#isBusy = false;
    if (this.#isClosed) return;
    this.#tell(outcome);
    if (!this.#isClosed) this.#conclude(outcome, isLast); // the listener may have closed it
  }

  // Never rejects: nothing that the host's code throws may end the host from here.
  async #outcome(isLast) {
    try {
      const usage = await this.#read();
      return {code: await this.#client.report(isLast ? {...usage, counts: {}} : usage)};
    } catch (thrown) {
      const error = thrown instanceof UgsError ? thrown : badUsage(textOf(thrown));
      return {code: error.code, error};
    }
  }

  // What the source gives. One that never does must not end the reporting.
  #read() {
    const late = badUsage(`the source gave no usage within ${this.#timeout} s`);
    return new Promise((resolve, reject) => {
      this.#timer = setTimeout(() => reject(late), this.#timeout * 1000);
      resolve(this.#source());
    }).finally(() => clearTimeout(this.#timer));
  }

  #conclude({code}, isLast) {
    this.#failures = code === undefined ? this.#failures + 1 : 0;
    if (isLast) {
      this.#signedOff.resolve(code);
      return this.close();
    }
    const again = this.#again;
    this.#again = false;
    if (again) return this.#schedule(now());
    if (this.#failures > 0) return this.#schedule(now() + pauseAfter(this.#failures, this.#period));
    // From the time it was due, so that delays do not add up.
    const periods = Math.max(Math.floor((now() - this.#due) / this.#period), 0) + 1;
    this.#schedule(this.#due + periods * this.#period);
  }

  // Each listener by itself: one that throws, or rejects, keeps nothing from the others.
  #tell(outcome) {
    const complain = (thrown) => process.emitWarning(`the listener threw: ${textOf(thrown)}`, "UgsWarning");
    for (const listener of this.rawListeners("outcome")) {
      try {
        Promise.resolve(listener.call(this, outcome)).catch(complain);
      } catch (thrown) {
        complain(thrown);
      }
    }
  }
}
