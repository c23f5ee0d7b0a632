// The installed JavaScript package, against the server with the published key of the vectors (check.sh).

import {Client, Reporter} from "ugs-client";
import assert from "node:assert/strict";
import {execFile} from "node:child_process";
import {generateKeyPairSync} from "node:crypto";
import {once} from "node:events";
import {mkdtempSync, readFileSync, rmSync, writeFileSync} from "node:fs";
import {tmpdir} from "node:os";
import {join} from "node:path";
import test from "node:test";
import {promisify} from "node:util";
import {Router} from "zeromq";

const [VECTORS, COMMAND] = [process.env.UGS_VECTORS, process.env.UGS_COMMAND];
const KEY = join(VECTORS, "test-public.pem");
const SERVER = "127.0.0.1";
const USAGE = {identity: "js", cameras: ["u"], counts: {MaxCameras: 4}};
const run = promisify(execFile);

// A server that answers as it is told.
async function fake() {
  const router = new Router({linger: 0});
  await router.bind("tcp://127.0.0.1:*");
  return {router, address: router.lastEndpoint.replace("tcp://", "")};
}

test("every vector is answered as it says", async () => {
  const client = new Client(SERVER, KEY);
  for (const {name, reply, payload} of JSON.parse(readFileSync(join(VECTORS, "vectors.json")))) {
    const code = await client.sendSealed(payload).catch((error) => error.kind === "Refused" && error.code);
    assert.equal(String(code), reply, name);
  }
  client.close();
});

test("reports are counted, also side by side", async () => {
  const client = new Client(SERVER, KEY);
  assert.deepEqual(await Promise.all([client.greet(), client.report(USAGE), client.signOff(USAGE)]), [1, 0, 0]);
  const {lastCounted, ...counters} = client.counters;
  assert.deepEqual(counters, {sent: 3, counted: 2, refused: 0, unanswered: 0, reconnects: 0});
  assert.ok(lastCounted instanceof Date);
  client.report({}); // a rejection that nobody looks at does not end us
  client.close();
  await assert.rejects(client.greet(), {kind: "BadUsage"});
});

test("a refusal is said, and the key is read again", async () => {
  const directory = mkdtempSync(join(tmpdir(), "key-"));
  const file = join(directory, "public.pem");
  writeFileSync(file, generateKeyPairSync("rsa", {modulusLength: 2048}).publicKey.export({type: "spki", format: "pem"}));
  const client = new Client(SERVER, file);
  const message = "refused by 127.0.0.1:9304; its log says why";
  await assert.rejects(client.report(USAGE), {kind: "Refused", code: 2, message});
  writeFileSync(file, readFileSync(KEY));
  await assert.rejects(client.report(USAGE), {kind: "Refused"});
  assert.equal(await client.report(USAGE), 0);
  client.close();
  rmSync(directory, {recursive: true});
});

test("failures say why", async () => {
  const {router, address} = await fake();
  const client = new Client(address, KEY, {timeout: 60});
  const lost = assert.rejects(client.greet(), {
    kind: "NoAnswer",
    message: `the connection to ${address} was lost before the answer`,
  });
  await router.receive();
  router.close();
  await lost;
  client.close();
  const nobody = new Client(address, KEY, {timeout: 0.2});
  const message = `no connection to ${address}: Connection refused`;
  await assert.rejects(nobody.greet(), {kind: "NotConnected", message});
  const nowhere = new Client("no.such.invalid", KEY);
  await assert.rejects(nowhere.greet(), {kind: "NoSuchHost", message: /^host no.such.invalid: /});
  for (const server of ["", "a:0", "a:65536", "::1", "a:b", 7]) {
    assert.throws(() => new Client(server, KEY), {kind: "BadUsage", message: /is not HOST or HOST:PORT$/});
  }
  assert.throws(() => new Reporter(SERVER, KEY, USAGE, {period: 119}), {kind: "BadUsage"});
});

test("a swallowed answer leads to a fresh report on another connection", async () => {
  const {router, address} = await fake();
  const outcomes = [];
  const reporter = new Reporter(address, KEY, USAGE, {period: 1, timeout: 1, listener: (outcome) => outcomes.push(outcome)});
  const [first, swallowed] = await router.receive();
  const [second, fresh] = await router.receive();
  assert.notDeepEqual(first, second);
  assert.notDeepEqual(swallowed, fresh);
  await router.send([second, "0"]);
  if (outcomes.length < 2) await once(reporter, "outcome");
  assert.deepEqual(outcomes.map(({code, error}) => code ?? error.message), [`no answer from ${address} within 1000 ms`, 0]);
  assert.deepEqual({...reporter.counters, lastCounted: 0},
                   {sent: 2, counted: 1, refused: 0, unanswered: 1, reconnects: 1, lastCounted: 0});
  reporter.close();
  router.close();
});

test("listeners and sources that throw keep nobody from reporting, and signing off is the last", async () => {
  let asked = 0;
  const source = async () => {
    if (++asked === 1) throw new Error("no usage");
    return USAGE;
  };
  const texts = [];
  const reporter = new Reporter(SERVER, KEY, source, {period: 1, listener: () => { throw new Error("listener"); }});
  reporter.on("outcome", async ({code, error}) => {
    texts.push(code ?? error.message);
    throw new Error("asynchronous listener");
  });
  reporter.reportNow();
  while (texts.length < 3) await once(reporter, "outcome");
  assert.equal(await reporter.signOff(), 0);
  assert.deepEqual([texts[0], ...new Set(texts.slice(1))], ["no usage", 0]);
  assert.equal(await reporter.signOff(), 0);
});

test("nothing keeps a process after close", async () => {
  const script = `
    import {Client, Reporter} from "ugs-client";
    const [key, silent] = process.argv.slice(1);
    const client = new Client("${SERVER}", key);
    await client.greet();
    client.close();
    const waiting = new Client(silent, key, {timeout: 600});
    waiting.greet();
    const reporter = new Reporter(silent, key, () => new Promise(() => {}), {period: 118, timeout: 600});
    reporter.reportNow();
    setTimeout(() => [waiting, reporter].forEach((each) => each.close()), 100);`;
  const {router, address} = await fake();
  await run(process.execPath, ["--input-type=module", "-e", script, KEY, address], {cwd: new URL(".", import.meta.url).pathname, timeout: 60000});
  router.close();
});

test("the command", async () => {
  const target = ["--server", SERVER, "--key", KEY];
  assert.equal((await run(COMMAND, ["greet", ...target])).stdout, "1 (hello)\n");
  const report = ["report", "--identity", "js", "--camera", "u", "--use", "MaxCameras=4"];
  const env = {...process.env, UGS_SERVER: SERVER, UGS_KEY: KEY};
  assert.equal((await run(COMMAND, report, {env})).stdout, "0 (counted)\n");
  const fails = (code, ...args) => assert.rejects(run(COMMAND, args, {env}), {code});
  await fails(2, ...report, "--use", "PX=-1");
  await fails(2, ...report, "--every", "0.5");
  await fails(3, "greet", "--server", "127.0.0.1:1");
});
