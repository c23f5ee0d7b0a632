// Reports to a KorvaneUGS server: node report.mjs tcp://HOST:9304 PUBLIC-KEY.pem IDENTITY PERIOD [TIMES]
// Needs the package `zeromq` (npm install zeromq).

import {constants, createCipheriv, publicEncrypt, randomBytes} from "node:crypto";
import {readFileSync} from "node:fs";
import {hostname} from "node:os";
import {setTimeout as sleep} from "node:timers/promises";
import {Dealer} from "zeromq";

const ANSWER_WITHIN = 30_000; // milliseconds

// What this instance is using: all 21 counts, 0 for what it does not use.
function usage(identity) {
  const names = "MaxCameras ABD AN CR ClassTier1 ClassTier2 ClassTier3 Perimeter Dwell Collision NeuralPack " +
    "PX Plates Generative ClassTier0 RemoteTier1 RemoteTier2 RemoteTier3 RemoteTier4 FaceTier1 FaceTier2";
  const counts = Object.fromEntries(names.split(" ").map((name) => [name, 0]));
  return {v6: {KorvaneID: identity, DockerID: hostname(), CamRtspUrls: [1, 2, 3, 4].map((camera) => `rtsp://10.0.0.9/${camera}`),
               InUse: {...counts, MaxCameras: 4, Plates: 2}}};
}

function seal(document, publicKey) {
  const key = randomBytes(32);
  const iv = randomBytes(16);
  const aes = createCipheriv("aes-256-cbc", key, iv);
  const parts = [publicEncrypt({key: publicKey, padding: constants.RSA_PKCS1_PADDING}, key), iv,
                 Buffer.concat([aes.update(JSON.stringify(document)), aes.final()])];
  const [data1, data2, data3] = parts.map((part) => part.toString("base64"));
  return Buffer.from(JSON.stringify({data1, data2, data3})).toString("base64");
}

function connect(server) {
  const socket = new Dealer({linger: 0, receiveTimeout: ANSWER_WITHIN});
  socket.connect(server);
  return socket;
}

// Seconds to the next try: at most 10 at first, and twice as long after each further failure, up to 100.
function pauseAfter(failures, period) {
  const most = Math.min(Math.min(10, period) * 2 ** (failures - 1), 100);
  const least = failures === 1 ? 0 : most / 2;
  return least + Math.random() * (most - least);
}

const [server, keyFile, identity, periodText, times = "0"] = process.argv.slice(2);
const period = Number(periodText);
if (!(period >= 1 && period <= 118)) {
  console.error("the period must be from 1 to 118 seconds");
  process.exit(2);
}
const publicKey = readFileSync(keyFile);
let socket = connect(server);
let failures = 0;
await sleep(Math.random() * period * 1000); // a fleet that starts together must not report together
for (let sent = 0; sent < Number(times) || times === "0"; ++sent) {
  await socket.send(seal(usage(identity), publicKey));
  try {
    console.log((await socket.receive()).toString());
    failures = 0;
  } catch { // lost on the way, or the server is away: reconnect, so that a late answer is not the next one's
    console.error("no answer");
    socket.close();
    socket = connect(server);
    ++failures;
  }
  await sleep((failures > 0 ? pauseAfter(failures, period) : period) * 1000);
}
