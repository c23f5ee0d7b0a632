// What the JavaScript package does before it needs a connection.

import assert from "node:assert/strict";
import {createDecipheriv, generateKeyPairSync, privateDecrypt, constants} from "node:crypto";
import {readFileSync} from "node:fs";
import test from "node:test";
import {layoutNames, writeDocument} from "../../client/javascript/document.mjs";
import {Sealer, encrypt} from "../../client/javascript/sealer.mjs";
import {pauseAfter, requirePeriod} from "../../client/javascript/timing.mjs";

const VECTORS = new URL("../../docs/vectors/", import.meta.url).pathname;
const read = (name) => readFileSync(VECTORS + name, "utf-8");
const vectors = JSON.parse(read("vectors.json"));
const opened = (payload) => JSON.parse(Buffer.from(payload, "base64").toString().replace(/\}[^}]*$/, "}"));

function usageOf(plaintext) {
  const document = JSON.parse(plaintext);
  const layout = layoutNames().findLast((name) => name in document) ?? "legacy";
  const {KorvaneID, DockerID, CamRtspUrls, InUse} = document[layout] ?? document;
  return {identity: KorvaneID, container: DockerID, cameras: CamRtspUrls, counts: InUse, layout};
}

const good = {identity: "i", cameras: ["", "u"], counts: {PX: 1}};
const refused = (change, message) =>
  assert.throws(() => writeDocument({...good, ...change}), {kind: "BadUsage", message});

test("documents are those of the vectors", () => {
  const peculiar = /does not know|goes before|other types/;
  const counted = vectors.filter(({name, reply}) => reply === "0" && !peculiar.test(name));
  for (const {name, plaintext} of counted) assert.equal(writeDocument(usageOf(plaintext)), plaintext, name);
  assert.deepEqual([...new Set(counted.map(({plaintext}) => usageOf(plaintext).layout))].sort(), layoutNames().sort());
  for (const name of ["no camera", "no identity", "counts of other types count as 0"]) {
    refused(usageOf(vectors.find((vector) => vector.name === name).plaintext), /no URL|is empty|not from 0/);
  }
});

test("what the server would misread is refused", () => {
  assert.equal(JSON.parse(writeDocument({identity: "ä\u{1F600}", cameras: ["u"]})).v6.KorvaneID, "ä\u{1F600}");
  for (const count of [-1, 4294967296, 1.5, NaN, "4", 4n, null, undefined, true]) {
    refused({counts: {PX: count}}, /^count PX is .*, not from 0 to 4294967295$/);
  }
  refused({counts: {maxcamera: 4}}, /^layout v6 .* "maxcamera"; did you mean MaxCameras\? It has MaxCameras .* FaceTier2$/);
  refused({counts: {FaceTier1: 1}, layout: "v5"}, /layout v5 carries no count/);
  refused({counts: {toString: 1}}, /carries no count/);
  refused({counts: new Map([["PX", 1]])}, /InUse must be an object/);
  refused({layout: "v7"}, /no layout "v7"/);
  refused({identity: ""}, /^KorvaneID is empty$/);
  refused({identity: 7}, /^KorvaneID must be a string, not 7$/);
  refused({cameras: [""]}, /^CamRtspUrls holds no URL$/);
  for (const cameras of [undefined, "u", [7], new Array(1)]) refused({cameras}, /^CamRtspUrls must be an array of strings/);
  for (const [text, why] of [["a\0", /holds a NUL byte$/], ["\ud800", /is not UTF-8$/], ["\udc00\ud800", /is not UTF-8$/]]) {
    for (const change of [{identity: text}, {container: text}, {cameras: [text]}]) refused(change, why);
  }
  refused({count: {}}, /no member "count" here; did you mean counts\?/);
});

test("sealed as the vectors, for the holder of the key", () => {
  const padded = /padded|half a block/;
  for (const {name, plaintext, key, iv, payload} of vectors.filter(({name, reply}) => reply === "0" && !padded.test(name))) {
    const ciphertext = encrypt(plaintext, Buffer.from(key, "hex"), Buffer.from(iv, "hex")).toString("base64");
    assert.equal(ciphertext, opened(payload.split("\n")[0]).data3, name);
  }
  const sealed = [1, 2].map(() => opened(new Sealer(read("test-public.pem")).seal("{hello}")));
  assert.notEqual(sealed[0].data2, sealed[1].data2);
  const parts = Object.values(sealed[0]).map((part) => Buffer.from(part, "base64"));
  const block = privateDecrypt({key: read("test-key.pem"), padding: constants.RSA_NO_PADDING}, parts[0]);
  assert.deepEqual([block[0], block[1], block.indexOf(0, 2)], [0, 2, block.length - 33]); // RFC 8017, 7.2.1
  const aes = createDecipheriv("aes-256-cbc", block.subarray(-32), parts[1]);
  assert.equal(aes.update(parts[2]) + aes.final(), "{hello}");
});

test("keys that cannot be used are refused", () => {
  const pem = (type, options) => generateKeyPairSync(type, options).publicKey.export({type: "spki", format: "pem"});
  const none = /^not the PEM text of an RSA public key$/;
  assert.throws(() => new Sealer(VECTORS + "none"), /^UgsError: cannot read the key file .*none$/);
  for (const key of [read("test-key.pem"), VECTORS + "vectors.json", pem("ec", {namedCurve: "P-256"})]) {
    assert.throws(() => new Sealer(key), {kind: "BadUsage", message: none});
  }
  const short = new Sealer(pem("rsa", {modulusLength: 512}).replace(/\n/g, "\r\n"));
  assert.equal(Buffer.from(opened(short.seal("{}")).data1, "base64").length, 64);
});

test("periods and pauses", () => {
  for (const period of [0.99, 118.1, -1, NaN, Infinity, "30", null, undefined, 30n]) {
    assert.throws(() => requirePeriod(period), /the period must be from 1 to 118 seconds/);
  }
  assert.deepEqual([1, 118].map(requirePeriod), [1, 118]);
  const bounds = (failures, period) => [0, 1].map((random) => pauseAfter(failures, period, random));
  assert.deepEqual([1, 2, 3, 4, 5, 9999].map((failures) => bounds(failures, 30)),
                   [[0, 10], [10, 20], [20, 40], [40, 80], [50, 100], [50, 100]]);
  assert.deepEqual([bounds(1, 4), bounds(2, 4)], [[0, 4], [4, 8]]);
});

test("the version is that of the client's interface", () => {
  const header = readFileSync(new URL("../../client/UgsClient.h", import.meta.url), "utf-8");
  const {version} = JSON.parse(readFileSync(new URL("../../client/javascript/package.json", import.meta.url), "utf-8"));
  assert.equal(version, `${/UGS_CLIENT_VERSION "(.*)"/.exec(header)[1]}.0`);
});
