#!/usr/bin/env python3
"""Makes vectors.json, or the file that is named: sealed requests, and what a server with test-key.pem must answer, and
print on its console when it refuses.

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
BASE = [
    "MaxCameras",
    "ABD",
    "AN",
    "CR",
    "ClassTier1",
    "ClassTier2",
    "ClassTier3",
    "Perimeter",
    "Dwell",
    "Collision",
    "NeuralPack",
]
ADDED = {
    "v4": ["PX", "Plates", "Generative", "ClassTier0"],
    "v5": ["RemoteTier1", "RemoteTier2", "RemoteTier3", "RemoteTier4"],
    "v6": ["FaceTier1", "FaceTier2"],
}
MISSING = dict(
    zip(
        BASE + sum(ADDED.values(), []),
        [
            "0xE209",
            "0xE220",
            "0xE230",
            "0xE235",
            "0xE240",
            "0xE241",
            "0xE242",
            "0xE243",
            "0xE244",
            "0xE245",
            "0xE246",
            "0xE247",
            "0xE248",
            "0xE249",
            "0xE24A",
            "0xE251",
            "0xE252",
            "0xE253",
            "0xE254",
            "0xE261",
            "0xE262",
        ],
    )
)
generator = random.Random(9304)

with open(os.path.join(HERE, "test-key.pem"), "rb") as file:
    PUBLIC = serialization.load_pem_private_key(file.read(), None).public_key().public_numbers()


def counts_of(layout):
    layouts = list(ADDED)[: list(ADDED).index(layout) + 1] if layout else []
    return BASE + sum((ADDED[name] for name in layouts), [])


def report(identity, layout="v6", cameras=("rtsp://10.0.0.9/1",), **changes):
    """A document; a change to None takes a member away."""
    request = {
        "KorvaneID": identity,
        "DockerID": "3f1c",
        "CamRtspUrls": list(cameras),
        "InUse": {name: number + 1 for number, name in enumerate(counts_of(layout))},
    }
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


def error(line):
    return f"[error] {line}\n"


def unread(member):
    return error(f"error {member}:: could not read data content\n")


def no_content(code):
    return error(f"Error {code}: Missing content\n")


NO_ENVELOPE = error("Received Invalid Content 0x316\n")
NO_KEY = "Envelope Error 0x00AE09: Failed to decrypt the file info\n" + error("Error 0x00AE06: Decryption fail\n")
NO_DOCUMENT = error("Error 0x476:: invalid data\n")
NO_INSTANCE = 2 * error("Error 0x442:: something wrong\n")


def add(
    name,
    reply,
    console="",
    payload=None,
    plaintext="",
    key_size=32,
    padding=None,
    change=lambda parts: parts,
    finish=lambda p: p,
):
    """Seals `plaintext`, or takes `payload` as it is. `change` sees the envelope's members, `finish` the payload."""
    entry = {"name": name, "reply": reply}
    if reply != "0":
        entry["console"] = console
    if payload is None:
        key, iv = generator.randbytes(key_size), generator.randbytes(16)
        ciphertext = encrypt(plaintext.encode(), key, iv, padding)
        parts = change({"data1": text(wrap(key)), "data2": text(iv), "data3": text(ciphertext)})
        payload = finish(text(json.dumps(parts, separators=(",", ":")).encode()))
        entry |= {"plaintext": plaintext, "key": key.hex(), "iv": iv.hex()}
    VECTORS.append(entry | {"payload": payload})


def outer(change):
    """A `finish` that changes the envelope's JSON."""
    return lambda payload: text(change(base64.b64decode(payload)))


def good():
    add("worked example", "0", plaintext=report("hall-7", MaxCameras=1))
    add("greeting", "1", plaintext="{hello}")
    for number, layout in enumerate(["", "v4", "v5", "v6"]):
        add(
            f"layout {layout or 'legacy'}",
            "0",
            plaintext=report("layout " + layout, layout),
            key_size=(16, 24, 32)[number % 3],
        )
    add("a layout takes counts that it does not know", "0", plaintext=report("unknown", "v4", Unknown=1))
    add("v6 goes before v4", "0", plaintext='{"v4":7,' + report("both")[1:])
    add("padded with zeros", "0", plaintext=report("zeros"), padding=b"\0")
    add(
        "bytes behind the envelope",
        "0",
        plaintext=report("behind"),
        finish=outer(lambda envelope: envelope + b"\n\0rest"),
    )
    add("lines behind the payload", "0", plaintext=report("lines"), finish=lambda payload: payload + "\nZm9v")
    add(
        "a member too many",
        "0",
        plaintext=report("many"),
        finish=outer(lambda envelope: b'{"other":{},' + envelope[1:]),
    )
    add(
        "counts of other types count as 0",
        "0",
        plaintext=report("types", MaxCameras="7", ABD=1.5, PX=None).replace('"Plates"', '"PX":null,"Plates"'),
    )


def bad_envelopes():
    add("no base64", "2", NO_ENVELOPE, payload="!")
    add("no base64 but JSON", "2", NO_ENVELOPE, payload="{}")
    add("the URL alphabet", "2", NO_ENVELOPE, payload="-_-_")
    add(
        "a line break",
        "2",
        NO_ENVELOPE,
        plaintext=report("broken"),
        finish=lambda payload: payload[:76] + "\n" + payload[76:],
    )
    add("no envelope in it", "2", NO_ENVELOPE, payload=text(b"plain text"))
    for envelope in (b"[1,2,3]}", b"}", b"7}", b"{}}", b"[{}", b'{"data1":}'):
        add(f"an envelope that is {envelope.decode()}", "2", payload=text(envelope))
    for number, (code, mistyped) in enumerate((("0x00AE03", 7), ("0x00AE04", None), ("0x00AE05", [])), 1):
        without = {key: "" for key in ("data1", "data2", "data3") if key != f"data{number}"}
        add(f"no data{number}", "2", no_content(code), payload=text(json.dumps(without).encode()))
        add(
            f"data{number} is {mistyped}",
            "2",
            no_content(code),
            payload=text(json.dumps(without | {f"data{number}": mistyped}).encode()),
        )
    add(
        "sealed for another server",
        "2",
        NO_KEY,
        plaintext=report("other"),
        change=lambda parts: parts | {"data1": text(wrap(b"k" * 32, PUBLIC.n - 2))},
    )
    add(
        "a wrapped key that is too long",
        "2",
        NO_KEY,
        plaintext=report("long"),
        change=lambda parts: parts | {"data1": text(bytes(300))},
    )
    add(
        "an AES key of 20 bytes",
        "2",
        plaintext=report("key"),
        change=lambda parts: parts | {"data1": text(wrap(b"k" * 20))},
    )
    add("another AES key", "2", plaintext="x" * 16, change=lambda parts: parts | {"data1": text(wrap(bytes(32)))})
    add(
        "an IV of 3 bytes",
        "2",
        NO_DOCUMENT,
        plaintext=report("iv"),
        change=lambda parts: parts | {"data2": text(b"iv3")},
    )
    add(
        "half a block more",
        "0",
        plaintext=report("half"),
        padding=b"\0",
        change=lambda parts: parts | {"data3": text(base64.b64decode(parts["data3"]) + bytes(8))},
    )
    add("nothing in it", "2", NO_KEY, payload=text(b'{"data1":"","data2":"","data3":""}'))
    add("another IV", "2", NO_DOCUMENT, plaintext=report("iv"), change=lambda parts: parts | {"data2": text(bytes(16))})


def bad_documents():
    for plaintext in ("{broken}", "[{}", '{"a":1e999}', "{hello} }", "[]}", '{"v5":7}', '{"v4":[]}', '{"v6":null}'):
        add(f"no document but {plaintext}", "2", NO_DOCUMENT, plaintext=plaintext)
    add("no brace in it", "2", plaintext="no brace")
    add("v5 goes before v4 whatever it is", "2", NO_DOCUMENT, plaintext='{"v5":1,' + report("both", "v4")[1:])
    add(
        "a version in another case",
        "2",
        error("error 0xE099:: could not read data content"),
        plaintext=report("case").replace("v6", "V6", 1),
    )
    add(
        "a number with a giant exponent",
        "2",
        error("error 0xE099:: could not read data content"),
        plaintext='{"a":0.00000000000000001e-2147483639}',
    )
    for name, console in (
        ("KorvaneID", error("error 0xE099:: could not read data content")),
        ("DockerID", unread("0xE126")),
        ("CamRtspUrls", unread("0xE146")),
        ("InUse", "error 0xE216:: could not read data content\n"),
    ):
        add(f"no {name}", "2", console, plaintext=report("missing", **{name: None}))
    add("CamRtspUrls is no array", "2", unread("0xE140"), plaintext=report("missing", CamRtspUrls="rtsp://10.0.0.9/1"))
    add("InUse is no object", "2", unread("0xE210"), plaintext=report("missing", InUse=[]))
    add("InUse is empty", "2", unread("0xE209"), plaintext=report("missing", InUse={}))
    for layout in ["", *ADDED]:
        for name in ADDED.get(layout, BASE):
            add(
                f"{layout or 'legacy'} without {name}",
                "2",
                unread(MISSING[name]),
                plaintext=report("missing", layout, **{name: None}),
            )
    add("no camera", "2", NO_INSTANCE, plaintext=report("blind", cameras=()))
    add("no identity", "2", NO_INSTANCE, plaintext=report(""))


def later_additions():
    """At the end, so that the vectors before them stay what they were."""
    add("v6 goes before v5", "0", plaintext='{"v5":7,' + report("both again")[1:])


if __name__ == "__main__":
    good()
    bad_envelopes()
    bad_documents()
    later_additions()
    with open(sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "vectors.json"), "w", encoding="ascii") as file:
        json.dump(VECTORS, file, indent=1)
        file.write("\n")
