import {Channel, Tally, parseAddress} from "./channel.mjs";
import {writeDocument} from "./document.mjs";
import {UgsError, badUsage} from "./errors.mjs";
import {Sealer} from "./sealer.mjs";
import {requireTimeout} from "./timing.mjs";

const GREETING = "{hello}";

function requireString(text) {
  if (typeof text === "string") return text;
  throw badUsage("what is sent must be a string");
}

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

  report(usage) {
    return this.#inTurn(writeDocument, usage);
  }

  signOff(usage) {
    return this.#inTurn(writeDocument, {...usage, counts: {}});
  }

  greet() {
    return this.sendDocument(GREETING);
  }

  sendDocument(document) {
    return this.#inTurn(requireString, document);
  }

  sendSealed(payload) {
    return this.#inTurn(requireString, payload, (text) => text);
  }

  get counters() {
    return {...this.#tally.counters};
  }

  close() {
    this.#isClosed = true;
    this.#channel.giveUp("the client was closed");
  }

  // What cannot be written fails now, without waiting for its turn.
  #inTurn(write, value, seal = (document) => this.#sealer.seal(document)) {
    const written = new Promise((resolve) => resolve(write(value)));
    const turn = Promise.all([written, this.#last]).then(([text]) => this.#ask(() => seal(text)));
    // A caller that does not look at the outcome must not end its process by that.
    this.#last = Promise.allSettled([this.#last, turn]).then(() => {});
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
