// One connection to the server, with at most one request in flight.

import {lookup} from "node:dns";
import {closeSync, openSync} from "node:fs";
import {connect, isIPv4} from "node:net";
import {devNull, constants as os} from "node:os";
import {getSystemErrorMap, inspect} from "node:util";
import {Dealer} from "zeromq";
import {UgsError, badUsage} from "./errors.mjs";
import {now} from "./timing.mjs";

const PORT = 9304;
const PROBE = 0.05;

// A server whose host vanished closes nothing; the heartbeat finds out (ZMTP 3.1).
const HEARTBEAT_MILLISECONDS = 10_000;

// As getaddrinfo(3) and connect(2) say it, where Node says it in other words.
const LOOKUP_TEXTS = {ENOTFOUND: "Name or service not known", EAI_AGAIN: "Temporary failure in name resolution"};
const CONNECT_TEXTS = {EHOSTUNREACH: "No route to host"};

// Reads HOST or HOST:PORT. IPv6 addresses are refused: the server listens on IPv4 only.
export function parseAddress(server) {
  const [, host, port = String(PORT)] = /^([^:]+)(?::(\d{1,5}))?$/.exec(server) ?? [];
  if (typeof server !== "string" || host === undefined || port < 1 || port > 65535) {
    throw badUsage(`${typeof server === "string" ? `"${server}"` : inspect(server)} is not HOST or HOST:PORT`);
  }
  return {host, port: Number(port), text: `${host}:${Number(port)}`};
}

// What has happened since a client or reporter was made.
export class Tally {
  counters = {sent: 0, counted: 0, refused: 0, unanswered: 0, reconnects: 0, lastCounted: null};
  #wasConnected = false;

  connected() {
    if (this.#wasConnected) ++this.counters.reconnects;
    this.#wasConnected = true;
  }

  ended(code) {
    if (code === undefined) ++this.counters.unanswered;
    if (code === 2) ++this.counters.refused;
    if (code !== 0) return;
    ++this.counters.counted;
    this.counters.lastCounted = new Date();
  }
}

// libzmq ends the process in an assertion if it gets some of the descriptors that it needs only.
function requireDescriptors() {
  const room = [];
  try {
    while (room.length < 12) room.push(openSync(devNull));
  } finally {
    room.forEach(closeSync);
  }
}

// What is given up together when an answer stays away.
class Link {
  isConnected = false;
  losses = 0; // of its connection
  address; // once it connects

  // `changed` is called when a connection is made and when it is lost.
  constructor(tally, changed) {
    requireDescriptors();
    // `immediate` queues nothing for a connection that is not there.
    this.socket = new Dealer({linger: 0, immediate: true, heartbeatInterval: HEARTBEAT_MILLISECONDS});
    this.socket.events.on("handshake", () => {
      this.isConnected = true;
      tally.connected();
      changed();
    });
    this.socket.events.on("disconnect", () => {
      this.isConnected = false;
      ++this.losses;
      changed();
    });
  }

  connect(address, port) {
    this.socket.connect(`tcp://${address}:${port}`);
    this.address = address;
  }
}

const later = (action, seconds) => setTimeout(action, Math.max(Math.ceil(seconds * 1000), 0));

// Why nobody accepts a connection: libzmq tries again and again and does not say. Nothing, if somebody does.
function probe(address, port, seconds) {
  return new Promise((resolve) => {
    const socket = connect({host: address, port});
    const end = (why) => {
      clearTimeout(timer);
      socket.destroy();
      resolve(why);
    };
    const timer = later(() => end("no answer"), seconds);
    socket.on("connect", () => end(undefined));
    socket.on("error", (error) => end(connectText(error)));
  });
}

function connectText({code, message}) {
  const [, text] = getSystemErrorMap().get(-os.errno[code]) ?? ["", message];
  return CONNECT_TEXTS[code] ?? text[0].toUpperCase() + text.slice(1);
}

export class Channel {
  #server;
  #timeout;
  #tally;
  #link = null;
  #wake = () => {};
  #endRequest = null; // while one is in flight
  #isSent = false;

  // `server` as parseAddress returns it; `timeout` in seconds.
  constructor(server, timeout, tally) {
    this.#server = server;
    this.#timeout = timeout;
    this.#tally = tally;
  }

  // Sends one request and waits for its answer. Resolves to the server's code; rejects with UgsError, also for a 2.
  // There must be none in flight.
  async ask(envelope) {
    this.#isSent = false;
    const ended = new Promise((_, reject) => (this.#endRequest = reject));
    const exchange = this.#exchange(envelope, now() + this.#timeout);
    exchange.catch(() => {}); // of one that was given up nobody hears
    try {
      const code = await Promise.race([exchange, ended]);
      this.#tally.ended(code);
      if (code === 2) throw new UgsError("Refused", `refused by ${this.#server.text}; its log says why`, code);
      return code;
    } catch (error) {
      if (error.code !== 2) this.#fail();
      throw error instanceof UgsError ? error : this.#notConnected(error.message); // no descriptor
    } finally {
      this.#endRequest = null;
    }
  }

  // Tells at once whether somebody accepts a connection. Rejects with UgsError if not.
  async reach() {
    const address = await this.#findAddress(now() + this.#timeout);
    const why = await probe(address, this.#server.port, this.#timeout);
    if (why !== undefined) throw this.#notConnected(why);
  }

  // Ends the request that is in flight, and the connection.
  giveUp(why) {
    this.#endRequest?.(new UgsError(this.#isSent ? "NoAnswer" : "NotConnected", why));
    this.#close();
  }

  // What was not answered may be answered late: not on a connection that the next request uses.
  #fail() {
    if (this.#isSent) this.#tally.ended(undefined);
    this.#close();
  }

  #close() {
    this.#link?.socket.close();
    this.#link = null;
    this.#wake();
  }

  #notConnected(why) {
    return new UgsError("NotConnected", `no connection to ${this.#server.text}: ${why}`);
  }

  async #exchange(envelope, deadline) {
    const link = (this.#link ??= new Link(this.#tally, () => this.#wake()));
    if (!link.address) link.connect(await this.#findAddress(deadline), this.#server.port);
    await this.#until(() => link.isConnected || link.socket.closed, deadline);
    if (link.socket.closed) throw this.#notConnected("it was given up");
    if (!link.isConnected) {
      throw this.#notConnected((await probe(link.address, this.#server.port, PROBE)) ?? "no handshake");
    }
    return this.#answer(link, envelope, deadline);
  }

  async #answer(link, envelope, deadline) {
    const losses = link.losses;
    let outcome;
    const settle = (result) => {
      outcome = result;
      this.#wake();
    };
    link.socket.send(envelope).then(() => {
      if (link !== this.#link) return;
      this.#isSent = true;
      ++this.#tally.counters.sent;
      return link.socket.receive().then((frames) => settle({frames}));
    }).catch((error) => settle({error}));
    // An answer that has arrived is taken before the news that the connection is lost: it came first.
    const isLost = () => this.#isSent && link.losses !== losses && !link.socket.closed && !link.socket.readable;
    await this.#until(() => outcome || isLost() || link.socket.closed, deadline);
    if (!outcome && isLost()) await new Promise(setImmediate); // it may be on its way to us
    if (outcome?.frames) return this.#codeOf(outcome.frames);
    if (!this.#isSent) throw this.#notConnected(outcome?.error?.message ?? "it was lost");
    throw new UgsError("NoAnswer", isLost() ? `the connection to ${this.#server.text} was lost before the answer`
      : `no answer from ${this.#server.text} within ${Math.round(this.#timeout * 1000)} ms`);
  }

  #codeOf(frames) {
    const text = frames[0].toString("latin1");
    if (/^-?\d{1,9}$/.test(text)) return Number(text);
    throw new UgsError("NoAnswer", `what answers at ${this.#server.text} is no KorvaneUGS server`);
  }

  // Names are looked up by us: in libzmq's own look-up, a resolver that does not answer would hold up its end.
  #findAddress(deadline) {
    const {host} = this.#server;
    if (isIPv4(host)) return host;
    const noSuchHost = (why) => new UgsError("NoSuchHost", `host ${host}: ${why}`);
    return new Promise((resolve, reject) => {
      const timer = later(() => reject(noSuchHost("the resolver does not answer")), deadline - now());
      lookup(host, {family: 4}, (error, address) => {
        clearTimeout(timer);
        if (error) reject(noSuchHost(LOOKUP_TEXTS[error.code] ?? error.message));
        else resolve(address);
      });
      this.#wake = () => clearTimeout(timer); // nobody waits any longer
    });
  }

  // Returns when the condition holds, or at the deadline.
  async #until(condition, deadline) {
    while (!condition() && now() < deadline) {
      await new Promise((resolve) => {
        const timer = later(resolve, deadline - now());
        this.#wake = () => {
          clearTimeout(timer);
          resolve();
        };
      });
    }
  }
}
