"""The package ugs_client as its user runs it: an interpreter of its own, so that its threads, forks and exits are real."""

import json
import os
import re
import subprocess
import sys

import pytest
from make import ADDED, BASE
from support import BUILD, KEY_FILE, ROOT, SANITIZER, TIMEOUT, VECTOR_SERVER, VECTORS

LIBRARY = BUILD / "client/libugs-client.so.1"
PREAMBLE = f"""
import atexit, json, logging, os, signal, socket, sys, threading, time
import ugs_client
from ugs_client import Client, Reporter
SERVER, KEY = "127.0.0.1", {str(KEY_FILE)!r}
WHAT = "i", ["rtsp://10.0.0.9/1"], {{"MaxCameras": 3}}
NOBODY = socket.create_server((SERVER, 0))  # takes connections, and says nothing
SILENT = "%s:%d" % NOBODY.getsockname()
logging.basicConfig(stream=sys.stdout, format="%(message)s")
"""
TOO_SMALL = """-----BEGIN PUBLIC KEY-----
MDwwDQYJKoZIhvcNAQEBBQADKwAwKAIhAIAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA
AAAAAAAAAAABAgMBAAE=
-----END PUBLIC KEY-----
"""  # 256 bits: no room for an AES key
pytestmark = pytest.mark.skipif(SANITIZER != "", reason="the interpreter is built without sanitizers")


def run(*arguments, status=0, **environment):
    environment = {"UGS_CLIENT_LIBRARY": LIBRARY, "PYTHONPATH": ROOT / "client/python", **environment}
    found = subprocess.run(
        # Python 3.12 and later warn of a fork beside threads, which is what one of these programs is about.
        [sys.executable, "-u", "-W", "ignore:This process", *arguments],
        capture_output=True,
        text=True,
        timeout=TIMEOUT,
        env=os.environ | environment,
    )
    assert (found.returncode, found.stderr if status == 0 else "") == (status, ""), found.stdout + found.stderr
    return found.stdout + found.stderr


def python(code, *arguments):
    return run("-c", PREAMBLE + code, *arguments).splitlines()


def test_reports_are_counted_and_every_failure_has_its_class_and_text(start):
    server = start()
    said = python(
        """
import zmq
mute = zmq.Context().socket(zmq.ROUTER)  # shakes hands, and answers nothing
port = mute.bind_to_random_port("tcp://127.0.0.1")
client = Client(SERVER, KEY)
print(client.greet(), client.report(*WHAT), client.counters().counted)
def fails(call):
    try:
        print("no failure", call())
    except ugs_client.UgsError as error:
        print(type(error).__name__, isinstance(error, ValueError), error)
fails(lambda: client.send_document("}"))
fails(lambda: Client("no-such-host.invalid", KEY, 1).greet())
fails(lambda: Client("127.0.0.1:9", KEY, 0.5).greet())
fails(lambda: Client(SILENT, KEY, 0.1).greet())
fails(lambda: Client(f"{SERVER}:{port}", KEY, 0.5).greet())
fails(lambda: Client(SERVER, sys.argv[1]).greet())
fails(lambda: client.report("", [], {}))
fails(lambda: client.report("i\\0", ["a"], {}))
fails(lambda: client.report("i", ["a"], {"PX": 2**70}))
fails(lambda: client.report("i", ["a"], {"PX": 1}, layout="legacy"))
fails(lambda: Client(SERVER, "/no/such.pem"))
fails(lambda: Client(SERVER, KEY, -0.001))
for period in (0.9, 118.1, float("nan")):
    fails(lambda: Reporter(SERVER, KEY, *WHAT, period=period))
client.close()
fails(client.greet)
mute.close(0)
""",
        TOO_SMALL,
    )
    assert said[:2] == ["1 0 1", "Refused False refused by 127.0.0.1:9304; its log says why"]
    assert said[2].startswith("NoSuchHost False host no-such-host.invalid: ")
    assert said[3] == "NotConnected False no connection to 127.0.0.1:9: Connection refused"
    assert said[4].startswith("NotConnected False no connection to 127.0.0.1:") and said[4].endswith("no handshake")
    assert re.fullmatch(r"NoAnswer False no answer from 127.0.0.1:\d+ within 500 ms", said.pop(5))
    assert said.pop(5).startswith("CannotSeal False cannot seal the request: ")
    assert said[5:8] == [
        "BadUsage True KorvaneID is empty",
        "BadUsage True KorvaneID holds a NUL byte",
        f"BadUsage True count PX is {2**70}, not from 0 to 4294967295",
    ]
    assert said[8].startswith('BadUsage True layout legacy carries no count "PX"')
    assert said[9:] == [
        "BadUsage True cannot read the key file /no/such.pem",
        "BadUsage True a time-out of -0.001 s is not positive",
        "BadUsage True a period of 900 ms is not from 1000 to 118000",
        "BadUsage True a period of 118100 ms is not from 1000 to 118000",
        "BadUsage True a period of nan s is not positive",
        "BadUsage True the client is closed",
    ]
    server.wait_for_cameras(3)


def test_every_vector_is_answered_as_it_says(start, tmp_path):
    start(command=(VECTOR_SERVER,))
    names = [vector["name"] for vector in VECTORS]
    documents = names.index("no document but {broken}")  # from here on, the envelopes are as they should be
    asked, expected = [], []
    for number, vector in enumerate(VECTORS):
        asked.append(("send_sealed", [vector["payload"]]))
        if "plaintext" in vector and (number >= documents or vector["reply"] != "2"):
            asked.append(("send_document", [vector["plaintext"]]))
        expected += [vector["reply"]] * (len(asked) - len(expected))
        if vector["name"].startswith(("worked", "layout ")):
            document = json.loads(vector["plaintext"])
            layout = next(iter(document)) if len(document) == 1 else "legacy"
            request = document.get(layout, document)
            assert set(request["InUse"]) <= set(BASE + sum(ADDED.values(), []))
            usage = [request["KorvaneID"], request["CamRtspUrls"], request["InUse"], request["DockerID"], layout]
            asked.append(("report", usage))
            expected.append("0")
    (tmp_path / "asked").write_text(json.dumps(asked))
    said = python(
        """
client = Client(SERVER, sys.argv[1])
for call, arguments in json.load(open(sys.argv[2], encoding="utf-8")):
    try:
        print(getattr(client, call)(*arguments))
    except ugs_client.Refused:
        print(2)
""",
        ROOT / "docs/vectors/test-public.pem",
        tmp_path / "asked",
    )
    assert said == expected and sum(call == "report" for call, _ in asked) == 5


def test_a_reporter_follows_its_usage_and_survives_listener_fork_and_exit(start):
    server = start()
    said = python(
        """
heard = threading.Event()
def listener(outcome):
    print(outcome.code, outcome.text)
    heard.set()
    raise KeyError("of the listener")
reporter = Reporter(SERVER, KEY, *WHAT, period=118, listener=listener)
reporter.update({"MaxCameras": 7})
heard.wait()
client = Client(SERVER, KEY)
child = os.fork()
if child == 0:
    for call in (client.greet, reporter.report_now, reporter.sign_off):
        try:
            call()
        except ugs_client.BadUsage as error:
            print(error)
    reporter.close()
    print(Client(SERVER, KEY).greet())
    sys.exit()
print(os.waitpid(child, 0)[1], client.greet())
silent = Reporter(SILENT, KEY, *WHAT, period=1, timeout=None, listener=print)  # both are alive at the end
begun, exiting = threading.Event(), threading.Event()
def slow_listener(outcome):
    begun.set()
    exiting.wait()
    for _ in range(50):
        time.sleep(0.01)  # lets go of the interpreter, which must still be there afterwards
    print("heard")
lasting = Reporter(SERVER, KEY, *WHAT, listener=slow_listener)
lasting.update({"MaxCameras": 7})
begun.wait()
atexit.register(exiting.set)
"""
    )
    forked = "this was made before a fork: make one in the process that uses it"
    assert "the listener failed" in said and "KeyError: 'of the listener'" in said  # whenever its thread comes to it
    told = ["0 ", forked, forked, forked, "1", "0 1", "heard"]
    assert [line for line in said if line in told] == told
    server.wait_for_cameras(7)


def test_a_sign_off_counts_and_a_signal_ends_what_waits(start):
    server = start()
    said = python(
        """
closed = threading.Event()
def listener(outcome):
    reporter.close()  # from its own thread
    closed.set()
reporter = Reporter(SERVER, KEY, *WHAT, listener=listener)
reporter.report_now()
closed.wait()
last = Reporter(SERVER, KEY, *WHAT)
print(last.sign_off())
def begin_to_wait():
    signal.setitimer(signal.ITIMER_REAL, 0.05, 0.05)  # over and over: one may come before the call
def stop(*_):
    signal.setitimer(signal.ITIMER_REAL, 0)
    raise KeyboardInterrupt
signal.signal(signal.SIGALRM, stop)
for call in (Client(SILENT, KEY, None).greet, Reporter(SILENT, KEY, *WHAT, timeout=None).sign_off):
    try:
        begin_to_wait()
        print("no failure", call())
    except KeyboardInterrupt:
        print("interrupted")
"""
    )
    assert said == ["0", "interrupted", "interrupted"]
    server.wait_for_cameras(0)


def test_the_command_ends_with_the_codes_of_ugs(start):
    start()
    command = ("-m", "ugs_client")
    report = (*command, "report", "--identity", "i", "--camera", "c")
    environment = {"UGS_SERVER": "127.0.0.1", "UGS_KEY": KEY_FILE}
    assert run(*command, "greet", **environment) == "1 (hello)\n"
    assert run(*report, "--use", "MaxCameras=2", **environment) == "0 (counted)\n"
    other = {**environment, "UGS_KEY": ROOT / "docs/vectors/test-public.pem"}
    assert run(*report, status=1, **other) == "2 (refused; the server's log says why)\n"
    assert "carries no count" in run(*report, "--use", "Px=2", status=2, **environment)
    assert "is not from 1000 to 118000" in run(*report, "--every", "119", status=2, **environment)
    assert "Connection refused" in run(*report, status=3, **{**environment, "UGS_SERVER": "127.0.0.1:9"})
    every = [sys.executable, *report, "--every", "1"]
    environment |= {"UGS_CLIENT_LIBRARY": LIBRARY, "PYTHONPATH": ROOT / "client/python"}
    with subprocess.Popen(every, env=os.environ | environment, stdout=subprocess.PIPE, text=True) as reporting:
        assert [reporting.stdout.readline() for _ in range(3)][1:] == ["0 (counted)\n"] * 2
        reporting.terminate()
    assert reporting.returncode == 0


def test_a_missing_library_is_named_with_its_package():
    said = run("-c", "import ugs_client", status=1, UGS_CLIENT_LIBRARY="/no/such.so")
    assert "ImportError: " in said and "/no/such.so" in said and "Debian package libugs-client1" in said
