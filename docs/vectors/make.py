#!/usr/bin/env python3
"""Makes vectors.json, or the file that is named: sealed requests, and what a server with test-key.pem must answer and log.

Shares no code with the server or its library. Gives the same file every time: key, IV and padding bytes come from
a generator with a fixed seed, which nobody who reports may imitate. Needs python3-cryptography.
"""

import base64
import json
import os
import random
import sys

from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes

HERE = os.path.dirname(os.path.abspath(__file__))
BASE = ["MaxCameras", "ABD", "AN", "CR", "ClassTier1", "ClassTier2", "ClassTier3", "Perimeter", "Dwell", "Collision",
        "NeuralPack"]
ADDED = {"v4": ["PX", "Plates", "Generative", "ClassTier0"],
         "v5": ["RemoteTier1", "RemoteTier2", "RemoteTier3", "RemoteTier4"], "v6": ["FaceTier1", "FaceTier2"]}
MISSING = dict(zip(BASE + sum(ADDED.values(), []), [
    "0xE209", "0xE220", "0xE230", "0xE235", "0xE240", "0xE241", "0xE242", "0xE243", "0xE244", "0xE245", "0xE246",
    "0xE247", "0xE248", "0xE249", "0xE24A", "0xE251", "0xE252", "0xE253", "0xE254", "0xE261", "0xE262"]))
generator = random.Random(9304)

with open(os.path.join(HERE, "test-key.pem"), "rb") as file:
    PUBLIC = serialization.load_pem_private_key(file.read(), None).public_key().public_numbers()


def counts_of(layout):
    layouts = list(ADDED)[:list(ADDED).index(layout) + 1] if layout else []
    return BASE + sum((ADDED[name] for name in layouts), [])


def report(identity, layout="v6", cameras=("rtsp://10.0.0.9/1",), **changes):
    """A document; a change to None takes a member away."""
    request = {"KorvaneID": identity, "DockerID": "3f1c", "CamRtspUrls": list(cameras),
               "InUse": {name: number + 1 for number, name in enumerate(counts_of(layout))}}
    for name, value in changes.items():
        place = request if name in request else request["InUse"]
        place[name] = value
        if value is None:
            del place[name]
    return json.dumps({layout: request} if layout else request, separators=(",", ":"))


def wrap(key, modulus=PUBLIC.n):
    """RSAES-PKCS1-v1_5 (RFC 8017, 7.2.1)."""
    filling = bytes(generator.randrange(1, 256) for _ in range(256 - 3 - len(key)))
    return pow(int.from_bytes(b"\0\2" + filling + b"\0" + key, "big"), PUBLIC.e, modulus).to_bytes(256, "big")


def encrypt(plaintext, key, iv, padding=None):
    size = 16 - len(plaintext) % 16
    padded = plaintext + (bytes([size]) if padding is None else padding) * size
    encryptor = Cipher(algorithms.AES(key), modes.CBC(iv)).encryptor()
    return encryptor.update(padded) + encryptor.finalize()


def text(data):
    return base64.b64encode(data).decode()


VECTORS = []


def add(name, reply, logged=(), payload=None, plaintext="", key_size=32, padding=None, change=lambda parts: parts, finish=lambda p: p):
    """Seals `plaintext`, or takes `payload` as it is. `change` sees the envelope's members, `finish` the payload."""
    entry = {"name": name, "reply": reply, "logged": list(logged)}
    if payload is None:
        key, iv = generator.randbytes(key_size), generator.randbytes(16)
        ciphertext = encrypt(plaintext.encode(), key, iv, padding)
        parts = change({"data1": text(wrap(key)), "data2": text(iv), "data3": text(ciphertext)})
        payload = finish(text(json.dumps(parts, separators=(",", ":")).encode()))
        entry |= {"plaintext": plaintext, "key": key.hex(), "iv": iv.hex()}
    VECTORS.append(entry | {"payload": payload})


def good():
    add("worked example", "0", plaintext=report("hall-7", MaxCameras=1))
    add("greeting", "1", plaintext="{hello}")
    for number, layout in enumerate(["", "v4", "v5", "v6"]):
        add(f"layout {layout or 'legacy'}", "0", plaintext=report("layout " + layout, layout), key_size=(16, 24, 32)[number % 3])
    add("a layout takes counts that it does not know", "0", plaintext=report("unknown", "v4", Unknown=1))
    add("v6 goes before v4", "0", plaintext='{"v4":7,' + report("both")[1:])
    add("padded with zeros", "0", plaintext=report("zeros"), padding=b"\0")
    add("bytes behind the envelope", "0", plaintext=report("behind"),
        finish=lambda payload: text(base64.b64decode(payload) + b"\n\0rest"))
    add("counts of other types count as 0", "0", plaintext=report("types", MaxCameras="7", ABD=1.5, PX=None) .replace(
        '"Plates"', '"PX":null,"Plates"'))


def bad_envelopes():
    add("no base64", "2", ["0x316"], payload="!")
    add("the URL alphabet", "2", ["0x316"], payload="-_-_")
    add("a line break", "2", ["0x316"], plaintext=report("broken"), finish=lambda payload: payload[:76] + "\n" + payload[76:])
    add("no envelope in it", "2", ["0x316"], payload=text(b"plain text"))
    add("an envelope that is no object", "2", payload=text(b"[1,2,3]}"))
    for number, code in enumerate(["0x00AE03", "0x00AE04", "0x00AE05"], 1):
        without = {key: "" for key in ("data1", "data2", "data3") if key != f"data{number}"}
        add(f"no data{number}", "2", [code], payload=text(json.dumps(without).encode()))
        add(f"data{number} is a number", "2", [code], payload=text(json.dumps({"data1": "", "data2": "", "data3": "", f"data{number}": 7}).encode()))
    add("sealed for another server", "2", ["0x00AE06"], plaintext=report("other"),
        change=lambda parts: parts | {"data1": text(wrap(b"k" * 32, PUBLIC.n - 2))})
    add("an AES key of 20 bytes", "2", plaintext=report("key"), change=lambda parts: parts | {"data1": text(wrap(b"k" * 20))})
    add("another AES key", "2", plaintext="x" * 16, change=lambda parts: parts | {"data1": text(wrap(bytes(32)))})
    add("another IV", "2", ["0x476"], plaintext=report("iv"), change=lambda parts: parts | {"data2": text(bytes(16))})


def bad_documents():
    add("no JSON", "2", ["0x476"], plaintext="{broken}")
    add("a version member that is no object", "2", ["0x476"], plaintext='{"v5":7}')
    for name, code in (("KorvaneID", "0xE099"), ("DockerID", "0xE126"), ("CamRtspUrls", "0xE146")):
        add(f"no {name}", "2", [code], plaintext=report("missing", **{name: None}))
    add("CamRtspUrls is no array", "2", ["0xE140"], plaintext=report("missing", CamRtspUrls="rtsp://10.0.0.9/1"))
    add("no InUse (named on the console only)", "2", plaintext=report("missing", InUse=None))
    add("InUse is no object", "2", ["0xE210"], plaintext=report("missing", InUse=7))
    for layout in ["", *ADDED]:
        for name in ADDED.get(layout, BASE):
            add(f"{layout or 'legacy'} without {name}", "2", [MISSING[name]], plaintext=report("missing", layout, **{name: None}))
    add("no camera", "2", ["0x442", "0x442"], plaintext=report("blind", cameras=()))
    add("no identity", "2", ["0x442", "0x442"], plaintext=report(""))


if __name__ == "__main__":
    good()
    bad_envelopes()
    bad_documents()
    with open(sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "vectors.json"), "w", encoding="ascii") as file:
        json.dump(VECTORS, file, indent=1)
        file.write("\n")
