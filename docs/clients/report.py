#!/usr/bin/env python3
"""Sends one report to a KorvaneUGS server: report.py tcp://HOST:9304 PUBLIC-KEY.pem IDENTITY

Needs python3-zmq and python3-cryptography. What reports over and over must also keep to the rules of timing.
"""

import base64
import json
import os
import sys

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


def main(server, key_file, identity):
    with open(key_file, "rb") as file:
        public_key = load_pem_public_key(file.read())
    with zmq.Context() as context, context.socket(zmq.DEALER) as socket:
        socket.linger = 0
        socket.connect(server)
        socket.send(seal(json.dumps(usage(identity)).encode(), public_key))
        if not socket.poll(ANSWER_WITHIN * 1000):
            sys.exit("no answer")
        print(socket.recv().decode())


if __name__ == "__main__":
    main(*sys.argv[1:])
