#!/usr/bin/env python3
"""Reports to a KorvaneUGS server: report.py tcp://HOST:9304 PUBLIC-KEY.pem IDENTITY PERIOD [TIMES]

Needs python3-zmq and python3-cryptography.
"""

import base64
import json
import os
import random
import sys
import time

import zmq
from cryptography.hazmat.primitives.asymmetric import padding
from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes
from cryptography.hazmat.primitives.serialization import load_pem_public_key

ANSWER_WITHIN = 30  # seconds


def usage(identity):
    """What this instance is using: all 21 counts, 0 for what it does not use."""
    counts = dict.fromkeys(
        "MaxCameras ABD AN CR ClassTier1 ClassTier2 ClassTier3 Perimeter Dwell Collision NeuralPack "
        "PX Plates Generative ClassTier0 RemoteTier1 RemoteTier2 RemoteTier3 RemoteTier4 "
        "FaceTier1 FaceTier2".split(),
        0,
    )
    return {
        "v6": {
            "KorvaneID": identity,
            "DockerID": os.uname().nodename,
            "CamRtspUrls": [f"rtsp://10.0.0.9/{camera}" for camera in range(4)],
            "InUse": counts | {"MaxCameras": 4, "Plates": 2},
        }
    }


def seal(plaintext, public_key):
    key, iv = os.urandom(32), os.urandom(16)
    pad = 16 - len(plaintext) % 16
    aes = Cipher(algorithms.AES(key), modes.CBC(iv)).encryptor()
    parts = public_key.encrypt(key, padding.PKCS1v15()), iv, aes.update(plaintext + bytes([pad]) * pad) + aes.finalize()
    return base64.b64encode(
        json.dumps({f"data{number}": base64.b64encode(part).decode() for number, part in enumerate(parts, 1)}).encode()
    )


def connect(server):
    socket = zmq.Context.instance().socket(zmq.DEALER)
    socket.linger = 0
    socket.connect(server)
    return socket


def pause_after(failures, period):
    """Seconds to the next try: at most 10 at first, and twice as long after each further failure, up to 100."""
    most = min(min(10, period) * 2 ** (failures - 1), 100)
    return random.uniform(0 if failures == 1 else most / 2, most)


def main(server, key_file, identity, period, times="0"):
    period = float(period)
    if not 1 <= period <= 118:
        sys.exit("the period must be from 1 to 118 seconds")
    with open(key_file, "rb") as file:
        public_key = load_pem_public_key(file.read())
    time.sleep(random.random() * period)  # a fleet that starts together must not report together
    socket, sent, failures = connect(server), 0, 0
    while sent < int(times) or times == "0":
        socket.send(seal(json.dumps(usage(identity)).encode(), public_key))
        sent += 1
        if socket.poll(ANSWER_WITHIN * 1000):
            print(socket.recv().decode(), flush=True)
            failures = 0
        else:  # lost on the way, or the server is away: reconnect, so that a late answer is not the next one's
            print("no answer", file=sys.stderr)
            socket.close()
            socket, failures = connect(server), failures + 1
        time.sleep(pause_after(failures, period) if failures else period)


if __name__ == "__main__":
    main(*sys.argv[1:])
