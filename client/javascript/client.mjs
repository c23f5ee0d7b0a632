import {Channel, Tally, parseAddress} from "./channel.mjs";
import {writeDocument} from "./document.mjs";
import {UgsError, badUsage} from "./errors.mjs";
import {Sealer} from "./sealer.mjs";
import {requireTimeout} from "./timing.mjs";

const GREETING = "{hello}";

// The parameters are described in index.d.ts, as are all that users see.
export class Client {
  #key;
  #sealer;
  #channel;
  #tally = new Tally();
  #last = Promise.resolve(); // of the requests, which go one after the other
  #isClosed = false;

  constructor(server, key, {timeout = 30} = {}) {
    this.#channel = new Channel(parseAddress(server), requireTimeout(timeout), this.#tally);
    this.#key = key;
    this.#sealer = new Sealer(key);
  }

  async report(usage) {
    return this.sendDocument(writeDocument(usage));
  }

  async signOff(usage) {
    return this.report({...usage, counts: {}});
  }

  async greet() {
    return this.sendDocument(GREETING);
  }

  async sendDocument(document) {
    if (typeof document !== "string") throw badUsage("the document must be a string");
    return this.#inTurn(() => this.#sealer.seal(document));
  }

  async sendSealed(payload) {
    return this.#inTurn(() => payload);
  }

  get counters() {
    return {...this.#tally.counters};
  }

  close() {
    this.#isClosed = true;
    this.#channel.giveUp("the client was closed");
  }

  #inTurn(seal) {
    const turn = this.#last.then(() => this.#ask(seal));
    this.#last = turn.catch(() => {});
    return turn;
  }

  async #ask(seal) {
    if (this.#isClosed) throw badUsage("this client is closed");
    try {
      return await this.#channel.ask(seal());
    } catch (error) {
      if (error.kind === "Refused") this.#readKeyAgain();
      throw error;
    }
  }

  // A site that changes its key changes the file; until then every report is refused.
  #readKeyAgain() {
    try {
      this.#sealer = new Sealer(this.#key);
    } catch (error) {
      if (!(error instanceof UgsError)) throw error; // else it may be just being written; the old one stays
    }
  }
}
