/// <reference types="node" />
import {EventEmitter} from "node:events";

/** Why something was not counted; as in the C++ library.
 *
 * - `NoSuchHost`: the name does not resolve, or the resolver does not answer
 * - `NotConnected`: nobody accepts a connection, or descriptors are lacking for one
 * - `NoAnswer`: the request was sent, and no answer came in time or before the connection was lost
 * - `Refused`: the server answered, but did not count; its log says why
 * - `CannotSeal`: the key cannot encrypt
 * - `BadUsage`: an argument is wrong, what was to be reported cannot be, or a reporter's source threw */
export type ErrorKind = "NoSuchHost" | "NotConnected" | "NoAnswer" | "Refused" | "CannotSeal" | "BadUsage";

/** All that this package throws and rejects with. The message is for people. */
export class UgsError extends Error {
  readonly name: "UgsError";
  readonly kind: ErrorKind;
  /** The server's reply, 2, with `Refused`; else undefined. */
  readonly code: number | undefined;
}

export type Layout = "legacy" | "v4" | "v5" | "v6";

/** What one instance is using. The server identifies the instance by `identity` and `cameras`, in order. */
export interface Usage {
  /** Not empty. */
  identity: string;
  /** Information only; empty by default. */
  container?: string;
  /** RTSP URLs, at least one of them not empty. */
  cameras: readonly string[];
  /** Integers from 0 to 4294967295 by name, as `{MaxCameras: 4}`; those left out are 0. See {@link countKeys}. */
  counts?: Readonly<Record<string, number>>;
  /** Of the document; "v6" by default. */
  layout?: Layout;
}

/** Since a client or reporter was made. */
export interface Counters {
  /** Requests of any kind. */
  sent: number;
  /** Answered 0. */
  counted: number;
  /** Answered 2. */
  refused: number;
  /** Sent, and not answered. */
  unanswered: number;
  /** Connections made after the first. */
  reconnects: number;
  /** When a report was last counted. */
  lastCounted: Date | null;
}

/** One instance's connection to the server. It is made with the first request, and again whenever it is lost.
 * It keeps the process alive until it is closed.
 *
 * There is never more than one request in flight: calls wait for those before them, and their time-out begins
 * with their turn. A request that is not answered in time is given up together with its connection. Each call
 * resolves to the server's code and rejects with {@link UgsError}, also for a refusal; a rejection that nobody
 * looks at does not end the process. After a refusal the key file is read again, so that a site's new key needs
 * no restart. */
export class Client {
  /** @param server HOST or HOST:PORT (port 9304 by default); IPv4.
   *  @param key the server's public RSA key: PEM text ("BEGIN PUBLIC KEY") or the name of a file that holds it.
   *  @param options.timeout seconds to wait for an answer and, before that, for a connection: 0.001 to 600,
   *    30 by default.
   *  @throws UgsError (`BadUsage`) */
  constructor(server: string, key: string, options?: {timeout?: number});

  /** 1: the server is there and has our key. */
  greet(): Promise<number>;

  /** 0: counted. */
  report(usage: Usage): Promise<number>;

  /** Reports that `usage` has ended: all its counts are 0, so the server's sums fall now, not after 120 s. */
  signOff(usage: Usage): Promise<number>;

  /** Seals and sends any document as it is. */
  sendDocument(document: string): Promise<number>;

  /** Sends as it is what was sealed elsewhere. */
  sendSealed(payload: string): Promise<number>;

  readonly counters: Counters;

  /** Gives up what is in flight or waits; does not wait. Nothing of the client keeps the process then, but for a
   *  look-up of the server's name that a resolver has not answered yet. */
  close(): void;
}

/** How one report ended: the server's code, unless there was none; and an error, unless it was counted. */
export interface Outcome {
  code?: number;
  error?: UgsError;
}

export type Listener = (outcome: Outcome) => unknown;

/** A usage, or what gives one when a report is due: also a promise of one. */
export type Source = Usage | (() => Usage | Promise<Usage>);

/** Reports once a period until it is closed. The first report comes at a random moment of the first period, so
 * that a fleet started together does not report together. After a request without an answer comes another, fresh
 * one, after a random pause of up to 10 s; from the second failure in a row on the pause doubles, up to 100 s.
 *
 * A source that throws, or gives nothing within the time-out, makes that report end with `BadUsage`. What a
 * listener throws becomes a warning of the process. Emits "outcome" for each report. */
export class Reporter extends EventEmitter {
  /** `server`, `key` and `options.timeout` as for {@link Client}. A fixed usage is copied.
   *  @param options.period seconds, 1 to 118, 30 by default. The server forgets an instance after 120 s. With a
   *    period from 10 to 75 s and a time-out of 30 s, one lost report never costs the instance.
   *  @param options.listener hears "outcome".
   *  @throws UgsError (`BadUsage`) */
  constructor(server: string, key: string, usage: Source,
              options?: {period?: number; timeout?: number; listener?: Listener});

  on(event: "outcome", listener: Listener): this;
  once(event: "outcome", listener: Listener): this;

  /** Reports at once, for a usage that has changed; the period begins anew. */
  reportNow(): void;

  /** Reports this usage at once, and from then on. @throws UgsError (`BadUsage`) */
  update(usage: Source): void;

  /** Sends a last report with all counts 0 (see {@link Client.signOff}) and closes. Resolves to its code, or to
   *  undefined without an answer; never rejects. Waits for the time-out at most, and before that for a report in
   *  flight. */
  signOff(): Promise<number | undefined>;

  readonly counters: Counters;

  /** Ends the reporting and gives up a report in flight; does not wait. No listener is called any more. */
  close(): void;
}

/** The names of all layouts, oldest first. */
export function layoutNames(): Layout[];

/** The counts that a layout ("v6" by default) carries, in the order of the document. */
export function countKeys(layout?: Layout): string[];

/** The JSON document that reports `usage`.
 *  @throws UgsError (`BadUsage`), with a text that names the field, for what the server would refuse or misread */
export function writeDocument(usage: Usage): string;
