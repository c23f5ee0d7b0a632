#!/usr/bin/env node
// Greets a KorvaneUGS server, or reports to it.

import {existsSync} from "node:fs";
import {parseArgs} from "node:util";
import {Channel, Tally, parseAddress} from "./channel.mjs";
import {badUsage} from "./errors.mjs";
import {Client, Reporter, writeDocument} from "./index.mjs";
import {requireTimeout} from "./timing.mjs";

const DONE = 0;
const REFUSED = 1;
const USAGE_ERROR = 2;
const NO_ANSWER = 3;
const MEANINGS = {0: "counted", 1: "hello", 2: "refused; the server's log says why"};
const KEYS = ["keys/public.pem", "/usr/share/korvaneugs/public.pem"]; // a checkout's, and the installed one

const HELP = `usage: ugs-client greet [TARGET]
       ugs-client report [TARGET] --identity ID [--container ID] --camera URL... [--use NAME=N...] [--every S]

TARGET:
  --server HOST[:PORT]  UGS_SERVER of the environment by default, or else 127.0.0.1; port 9304 if left out
  --key FILE            the server's public key, a PEM file; by default UGS_KEY of the environment, or else
                        ${KEYS.join(" or ")}
  --timeout S           seconds to wait for the answer (5)

  --identity ID         of the instance (KorvaneID)
  --container ID        its container (DockerID); information only
  --camera URL          of a camera; may be repeated
  --use NAME=N          as MaxCameras=4; may be repeated
  --layout LAYOUT       of the document (v6)
  --every S             report every S seconds (1 to 118) until interrupted

Exit codes: 0 done, 1 the server refused, 2 usage error, 3 no answer.`;

const text = {type: "string"};
const texts = {type: "string", multiple: true};
const TARGET = {server: text, key: text, timeout: text};
const COMMANDS = {
  greet: TARGET,
  report: {...TARGET, identity: text, container: text, camera: texts, use: texts, layout: text, every: text},
};

function parse(name, args) {
  if (!Object.hasOwn(COMMANDS, name)) throw badUsage(`there is no command "${name}"; there are greet and report`);
  return parseArgs({args, options: COMMANDS[name]}).values;
}

function secondsOf(option, value) {
  if (/^\d*\.?\d+$/.test(value)) return Number(value);
  throw badUsage(`--${option} ${value} is not a number of seconds`);
}

function targetOf({server, key, timeout = "5"}) {
  const target = {
    server: server ?? (process.env.UGS_SERVER || "127.0.0.1"),
    key: key ?? (process.env.UGS_KEY || (KEYS.find(existsSync) ?? KEYS[0])),
    timeout: requireTimeout(secondsOf("timeout", timeout)),
  };
  if (existsSync(target.key)) return target;
  throw badUsage(`cannot read the key file ${target.key} (--key)`);
}

function countsOf(uses) {
  const counts = new Map();
  for (const use of uses) {
    const [, name, digits] = /^([^=]*)=(\d+)$/.exec(use) ?? [];
    if (name === undefined) throw badUsage(`--use ${use} is not NAME=COUNT with a count from 0 to 4294967295`);
    if (counts.has(name)) throw badUsage(`--use names ${name} twice`);
    counts.set(name, Number(digits));
  }
  return Object.fromEntries(counts);
}

function usageOf({identity = "", container, camera = [], use = [], layout}) {
  if (identity === "" || camera.length === 0) throw badUsage("report needs --identity and at least one --camera");
  const usage = {identity, container, cameras: camera, counts: countsOf(use), layout};
  writeDocument(usage); // refuses now what it would later
  return usage;
}

// Returns the exit code.
function print({code, error}, expected) {
  if (code === undefined) {
    console.error(`ugs-client: ${error.message}`);
    return error.kind === "BadUsage" ? USAGE_ERROR : NO_ANSWER;
  }
  console.log(`${code} (${MEANINGS[code] ?? "unknown code"})`);
  return code === expected ? DONE : REFUSED;
}

async function ask({server, key, timeout}, question, expected) {
  const client = new Client(server, key, {timeout});
  try {
    // The client would go on trying; at a shell the reason is wanted at once.
    await new Channel(parseAddress(server), timeout, new Tally()).reach();
    return print({code: await question(client)}, expected);
  } catch (error) {
    return print({code: error.code, error}, expected);
  } finally {
    client.close();
  }
}

// Until it is interrupted. Returns the exit code of the last report.
function reportEvery(period, {server, key, timeout}, usage) {
  let exitCode = NO_ANSWER;
  const listener = (outcome) => {
    exitCode = print(outcome, 0);
  };
  const reporter = new Reporter(server, key, usage, {period, timeout, listener});
  console.log(`The first report comes within ${period} s; Ctrl-C ends this.`);
  return new Promise((resolve) => {
    const end = () => {
      reporter.close();
      resolve(exitCode);
    };
    process.once("SIGINT", end);
    process.once("SIGTERM", end);
  });
}

async function run([name, ...args]) {
  if (name === undefined || [name, ...args].includes("--help")) {
    console.log(HELP);
    return name === undefined ? USAGE_ERROR : DONE;
  }
  const options = parse(name, args);
  const target = targetOf(options);
  if (name === "greet") return ask(target, (client) => client.greet(), 1);
  const usage = usageOf(options);
  if (options.every !== undefined) return reportEvery(secondsOf("every", options.every), target, usage);
  return ask(target, (client) => client.report(usage), 0);
}

try {
  process.exitCode = await run(process.argv.slice(2));
} catch (error) {
  console.error(`ugs-client: ${error.message}`);
  process.exitCode = USAGE_ERROR;
}
