"""Drives the real server. Reports are sealed as docs/clients/report.py does it, without the code under test."""

import contextlib
import fcntl
import json
import os
import re
import socket
import struct
import subprocess
import termios
import time
from pathlib import Path

import make
import psutil
import report
import zmq
from cryptography.hazmat.primitives.serialization import load_pem_public_key

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("UGS_BUILD_DIR", ROOT / "build/release"))
KEY_FILE = Path(os.environ.get("UGS_KEY_DIR", ROOT / "keys")) / "public.pem"
SANITIZER = os.environ.get("UGS_SANITIZE", "")
IS_RELEASE = "CMAKE_BUILD_TYPE:STRING=RelWithDebInfo" in (BUILD / "CMakeCache.txt").read_text()
SERVER, UGS, VECTOR_SERVER = BUILD / "KorvaneUGS", BUILD / "ugs", BUILD / "tests/server-with-test-key"
KEY = load_pem_public_key(KEY_FILE.read_bytes())
VECTORS = json.loads((ROOT / "docs/vectors/vectors.json").read_text("ascii"))
VECTOR_GREETING = next(vector["payload"].encode() for vector in VECTORS if vector["name"] == "greeting")
PORT = 9304
LOG_SIZE = 10 * 1024 * 1024
HALF_HOUR = 1801  # seconds of wall clock after which a server is rebuilt
END_OF_STATUS = "[info] " + 52 * "-" + "\n"
TIMEOUT = 60


def wait_until(condition, seconds=TIMEOUT):
    deadline = time.monotonic() + seconds
    while not (result := condition()):
        assert time.monotonic() < deadline, "waited in vain"
        time.sleep(0.01)
    return result


def seal(text):
    return report.seal(text.encode(), KEY)


def sealed_report(identity="i", **counts):
    return seal(make.report(identity, **counts))


def begin_fleet(*arguments, key=KEY_FILE):
    return subprocess.Popen([UGS, "fleet", "--key", key, *arguments], stdout=subprocess.PIPE, text=True)


def fill_log(directory, room):
    """A log file that is rotated after `room` more bytes."""
    (directory / "logs").mkdir()
    (directory / "logs/KorvaneUGS.log.txt").write_text(("x" * 99 + "\n").rjust(LOG_SIZE - room, "x"), "ascii")


def unread(descriptor):
    """How many of the bytes that were typed have not been read yet."""
    return struct.unpack("i", fcntl.ioctl(descriptor, termios.FIONREAD, bytes(4)))[0]


# What a DEALER says to begin with (ZeroMQ RFC 13, 15, 23, 37), and how it then frames a message.
def long_frame(payload):
    return b"\2" + len(payload).to_bytes(8, "big") + payload


SIGNATURE = b"\xff" + bytes(8) + b"\x7f"
READY = b"\4\x1c\5READY\x0bSocket-Type" + b"\0\0\0\6DEALER"
GREETINGS = {
    "1.0": b"\1\0",
    "2.0": SIGNATURE + b"\1\5\0\0",
    "3.0": SIGNATURE + b"\3\0NULL" + bytes(48),
    "3.1": SIGNATURE + b"\3\1NULL" + bytes(48),
}


def read_to(connection, end):
    received = b""
    while not received.endswith(end):
        chunk = connection.recv(1000)
        assert chunk, received
        received += chunk


@contextlib.contextmanager
def raw_peer(version="3.0"):
    """A TCP connection on which a peer of that ZMTP version has shaken hands."""
    with socket.create_connection(("127.0.0.1", PORT), TIMEOUT) as connection:
        connection.sendall(GREETINGS[version])
        if version >= "3":
            connection.sendall(READY)
            read_to(connection, b"ROUTER\x08Identity" + bytes(4))  # it hangs up on frames that come before its READY
        yield connection


class Peer:
    """A reporting instance."""

    def __init__(self, context):
        self.context = context

    def connect(self, kind=zmq.DEALER, name=b"", source="127.0.0.1"):
        self.socket = self.context.socket(kind)
        if name:
            self.socket.set(zmq.ROUTING_ID, name)
        self.socket.set(zmq.LINGER, 0)
        self.socket.set(zmq.RCVTIMEO, TIMEOUT * 1000)
        self.socket.connect(f"tcp://{source}:0;127.0.0.1:{PORT}")
        return self

    def send(self, payload, times=1):
        for _ in range(times):
            self.socket.send(payload)

    def take(self, number=1):
        return [self.socket.recv() for _ in range(number)]

    def ask(self, payload):
        self.send(payload)
        return self.socket.recv()

    def meet(self, greeting=None):
        """Connects anew until a greeting is answered: what is sent while the server starts or rebuilds may be lost."""

        def greeted():
            self.connect().send(greeting or seal("{hello}"))
            return self.socket.poll(1000) and self.take() == [b"1"] or self.socket.close()

        wait_until(greeted)
        return self


class Server(subprocess.Popen):
    """A running server. Its keyboard is a pipe, and its console a file in its directory. With `clock` its wall clock can be
    shifted; with "x1" all its clocks, and their rate can be changed."""

    may_say = ""  # on stderr: a regular expression

    def __init__(self, directory, *arguments, command=(SERVER,), clock=None, stdin=subprocess.PIPE, env=(), **options):
        self.directory = Path(directory)
        self.directory.mkdir(exist_ok=True)
        environment = {**os.environ, **dict(env)}
        self.rate = clock
        if clock is not None:
            self.shift_clock(0)
            environment |= {"LD_PRELOAD": "/usr/$LIB/faketime/libfaketimeMT.so.1", "FAKETIME_NO_CACHE": "1"}
            environment |= {"FAKETIME_TIMESTAMP_FILE": str(self.directory / "shift")}
            environment |= {"DONT_FAKE_MONOTONIC": "0" if clock else "1"}
        with open(self.directory / "console", "wb") as console, open(self.directory / "errors", "wb") as errors:
            options = {"stdout": console, "stderr": errors, "cwd": self.directory, "env": environment} | options
            super().__init__([*command, *arguments], stdin=stdin, bufsize=0, **options)

    def shift_clock(self, seconds):
        file = self.directory / "shift"
        file.with_suffix(".new").write_text(f"{seconds:+} {self.rate}\n", "ascii")
        file.with_suffix(".new").rename(file)

    def rebuild(self, number=1):
        """Moves the clock on for the `number`-th time, and returns when the server begins to be rebuilt for it."""
        self.shift_clock(HALF_HOUR * number)
        self.wait_for("Refreshing UGS server...\n", number)

    def console(self, since=0):
        return (self.directory / "console").read_bytes()[since:].decode()

    def wait_for(self, text, times=1):
        wait_until(lambda: self.console().count(text) >= times or self.poll() is not None)
        assert self.poll() is None, (self.returncode, self.complaints())

    def type(self, key):
        """Returns when it was read."""
        self.stdin.write(key)
        wait_until(lambda: not unread(self.stdin))

    def log(self):
        return (self.directory / "logs/KorvaneUGS.log.txt").read_text("utf-8")

    def complaints(self):
        return (self.directory / "errors").read_text(errors="replace")

    def memory(self):
        return psutil.Process(self.pid).memory_info().rss

    def wait_for_memory_below(self, limit):
        wait_until(lambda: self.memory() < limit)

    def figures(self):
        """The last status report's, by label."""
        block = self.console().rsplit("UGS version", 1)[-1]
        return {label: int(figure) for label, figure in re.findall(r"(\w+) *: in use: (\d+)", block)}

    def wait_for_cameras(self, number):
        wait_until(lambda: self.figures().get("MaxCameras") == number)

    def end(self):
        """Asks it to end unless it has, and requires that it ends well."""
        if self.poll() is None:
            self.terminate()
        self.wait(TIMEOUT)
        assert self.returncode == 0 and re.fullmatch(self.may_say, self.complaints(), re.DOTALL), self.complaints()
