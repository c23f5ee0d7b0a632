"""Drives the real server and seals reports for it, independently of the code under test."""

import base64
import json
import os
import pty
import re
import signal
import subprocess
import tempfile
import termios
import threading
import time
import unittest

import zmq
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import padding
from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes

BUILD = os.environ["UGS_BUILD_DIR"]
KEYS = os.environ["UGS_KEY_DIR"]
SERVER = os.path.join(BUILD, "KorvaneUGS")
UGS = os.path.join(BUILD, "ugs")
PORT = 9304
END_OF_STATUS = "[info] " + 52 * "-" + "\n"
PATIENCE = 30  # seconds; no test depends on how much of it is needed

COUNTS = ["MaxCameras", "ABD", "AN", "CR", "ClassTier1", "ClassTier2", "ClassTier3", "Perimeter", "Dwell", "Collision",
          "NeuralPack", "PX", "Plates", "Generative", "ClassTier0", "RemoteTier1", "RemoteTier2", "RemoteTier3",
          "RemoteTier4", "FaceTier1", "FaceTier2"]


def wait_until(condition, what):
    deadline = time.monotonic() + PATIENCE
    while time.monotonic() < deadline:
        result = condition()
        if result:
            return result
        time.sleep(0.02)
    raise AssertionError(f"waited in vain for {what() if callable(what) else what}")


def session_members(session):
    """The processes of a session by name, from proc(5)."""
    members = {}
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{entry}/stat", encoding="utf-8", errors="replace") as file:
                name, rest = file.read().split("(", 1)[1].rsplit(")", 1)
        except OSError:
            continue  # it has ended meanwhile
        if int(rest.split()[3]) == session:
            members[name] = int(entry)
    return members


def document(identity="i", cameras=("rtsp://camera",), layout="v6", **counts):
    request = {"KorvaneID": identity, "DockerID": "d", "CamRtspUrls": list(cameras),
               "InUse": {**dict.fromkeys(COUNTS, 0), **counts}}
    return json.dumps({layout: request} if layout else request).encode()


def envelope(wrapped, iv, ciphertext):
    parts = {f"data{i + 1}": base64.b64encode(part).decode() for i, part in enumerate((wrapped, iv, ciphertext))}
    return base64.b64encode(json.dumps(parts).encode())


def wrap(key, keys=KEYS):
    with open(os.path.join(keys, "public.pem"), "rb") as file:
        public = serialization.load_pem_public_key(file.read())
    return public.encrypt(key, padding.PKCS1v15())


def seal(plaintext, key_size=32):
    key, iv = os.urandom(key_size), os.urandom(16)
    pad = 16 - len(plaintext) % 16
    encryptor = Cipher(algorithms.AES(key), modes.CBC(iv)).encryptor()
    return envelope(wrap(key), iv, encryptor.update(plaintext + bytes([pad]) * pad) + encryptor.finalize())


class Peer:
    """A reporting instance. Closed with the test."""

    def __init__(self, test, kind=zmq.DEALER):
        self.socket = zmq.Context.instance().socket(kind)
        self.socket.linger = 0
        self.socket.rcvtimeo = PATIENCE * 1000
        self.socket.connect(f"tcp://127.0.0.1:{PORT}")
        test.addCleanup(self.socket.close)

    def ask(self, payload):
        self.socket.send(payload)
        return self.socket.recv()

    def meet(self, greeting=None):
        """Greets until the server answers: requests sent while it starts or rebuilds may be lost."""
        def greeted():
            self.socket.send(greeting or seal(b"{hello}"))
            return self.socket.poll(500) and self.socket.recv() == b"1"
        wait_until(greeted, "an answer to the greeting")
        while self.socket.poll(700):  # answers to greetings that were only late
            self.socket.recv()
        return self


class Server:
    """A running server with its console on a pseudo-terminal. `stdin` is "pipe", "terminal", "closed" or a file.

    Of the console, the last `keep` bytes are kept.
    """

    def __init__(self, test, stdin="pipe", arguments=(), environment=None, clock=False, command=(SERVER,),
                 directory=None, keep=10**8, **options):
        self.keep = keep
        self.directory = directory or tempfile.mkdtemp()
        self.shift_file = os.path.join(self.directory, "shift")
        if directory is None:
            test.addCleanup(subprocess.run, ["rm", "-rf", self.directory])
        environment = {**os.environ, **(environment or {})}
        if clock:
            self.shift_clock(0)
            environment.update(LD_PRELOAD=os.environ["UGS_CLOCK_LIBRARY"], UGS_CLOCK_SHIFT=self.shift_file)
        self.output, self.printed = b"", 0  # what is kept, and how many bytes there were in all
        self.master, terminal = pty.openpty()
        self.modes_before = termios.tcgetattr(terminal)
        stdin_file = {"pipe": subprocess.PIPE, "terminal": terminal, "closed": None}.get(stdin, stdin)
        self.errors = tempfile.TemporaryFile()
        self.process = subprocess.Popen(
            [*command, *arguments], cwd=self.directory, env=environment, stdin=stdin_file, stdout=terminal,
            stderr=self.errors, start_new_session=True,
            preexec_fn=lambda: self._prepare(stdin, terminal), **options)
        self.terminal = terminal
        threading.Thread(target=self._read_console, daemon=True).start()
        test.addCleanup(self._clean_up)

    @staticmethod
    def _prepare(stdin, terminal):
        signal.signal(signal.SIGHUP, signal.SIG_DFL)  # the tests themselves may run under nohup
        if stdin == "terminal":
            import fcntl
            fcntl.ioctl(terminal, termios.TIOCSCTTY, 0)
        if stdin == "closed":
            os.close(0)

    def _read_console(self):
        try:
            while chunk := os.read(self.master, 65536):
                self.output = (self.output + chunk)[-self.keep:]
                self.printed += len(chunk)
        except OSError:
            pass

    def _clean_up(self):
        for pid in session_members(self.process.pid).values():
            os.kill(pid, signal.SIGKILL)
        self.process.wait()
        os.close(self.terminal)
        os.close(self.master)
        if self.process.stdin:
            self.process.stdin.close()
        self.errors.close()

    def shift_clock(self, seconds):
        with open(self.shift_file + ".new", "w", encoding="ascii") as file:
            file.write(str(seconds))
        os.rename(self.shift_file + ".new", self.shift_file)

    def console(self, mark=0):
        """What was printed since `printed` was `mark`, as far as it is kept."""
        news = self.output[max(0, len(self.output) - (self.printed - mark)):]
        return news.replace(b"\r\n", b"\n").decode(errors="replace")

    def wait_for(self, text, times=1):
        return wait_until(lambda: self.console().count(text) >= times,
                          lambda: f"{times} x {text!r} in {self.console()[-2000:]}")

    def started(self):
        """Waits for the first status report: from then on keys and signals are heard."""
        self.wait_for(END_OF_STATUS)
        return self

    def type(self, keys):
        if self.process.stdin:
            self.process.stdin.write(keys)
            self.process.stdin.flush()
        else:
            os.write(self.master, keys)

    def modes(self):
        return termios.tcgetattr(self.terminal)

    def log_text(self):
        with open(os.path.join(self.directory, "logs/KorvaneUGS.log.txt"), encoding="utf-8") as file:
            return file.read()

    def figures(self):
        """The last status block's figures by label."""
        block = self.console().rsplit("UGS version", 1)[-1]
        return {label: int(figure) for label, figure in re.findall(r"(\w+) *: in use: (\d+)", block)}

    def wait_for_end(self):
        code = self.process.wait(PATIENCE)
        self.errors.seek(0)
        errors = self.errors.read().decode(errors="replace")
        return code, errors

    def threads_open_to(self, number):
        """The threads that the kernel may choose for a signal to the process, from proc(5)."""
        def blocked(thread):
            with open(f"/proc/{self.process.pid}/task/{thread}/status", encoding="utf-8") as file:
                return int(re.search(r"SigBlk:\s*(\w+)", file.read())[1], 16)
        threads = map(int, os.listdir(f"/proc/{self.process.pid}/task"))
        return [thread for thread in threads if not blocked(thread) >> (number - 1) & 1]

    def is_stopped(self, pid=None):
        with open(f"/proc/{pid or self.process.pid}/stat", encoding="ascii") as file:
            return file.read().rsplit(")", 1)[1].split()[0] == "T"


class ServerTest(unittest.TestCase):
    maxDiff = None  # a sanitizer's report is long

    def setUp(self):
        import socket
        with socket.socket() as probe:
            probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            try:
                probe.bind(("0.0.0.0", PORT))
            except OSError as error:
                raise RuntimeError(f"port {PORT} is in use; stop the server that holds it") from error

    def start(self, **arguments):
        return Server(self, **arguments)

    def peer(self, **arguments):
        return Peer(self, **arguments)

    def assert_ends_well(self, server):
        code, errors = server.wait_for_end()
        self.assertEqual((code, errors), (0, ""))
