"""docs/protocol.md and what belongs to it, against a server that has the published key of the vectors."""

import json
import re
import subprocess
import sys

import pytest
from make import ADDED, BASE
from support import (
    GREETINGS,
    ROOT,
    VECTOR_GREETING,
    VECTOR_SERVER,
    VECTORS,
    long_frame,
    raw_peer,
    read_to,
    seal,
    wait_until,
)

DOCS = ROOT / "docs"
COUNTS = BASE + sum(ADDED.values(), [])
LABELS = {"MaxCameras": "MaxCameras", "ABD": "numAbandoned", "AN": "numAnomaly", "CR": "numCrossing"}
IN_USE = "MaxCameras ABD CR AN ClassTier0 ClassTier1 ClassTier2 ClassTier3 Perimeter NeuralPack".split() + [
    name for name in COUNTS[COUNTS.index("PX") :] if name != "ClassTier0"
]  # in the order of the status report
REQUIRED = [name for name in IN_USE if name != "NeuralPack"] + ["NeuralPack"]  # in the order of a request's details


def counts_of(plaintext):
    """The instance and the counts of a report that is counted."""
    document = json.loads(plaintext)
    request = document.get("v6") or document.get("v5") or document.get("v4") or document
    counts = {name: request["InUse"].get(name, 0) for name in COUNTS}
    return request["KorvaneID"], {name: count if isinstance(count, int) else 0 for name, count in counts.items()}


def figures(console):
    return re.findall(r"^\[info\] (\w+) *: (required|in use): (\d+)$", console, re.MULTILINE)


def test_every_vector_is_answered_and_logged_as_it_says(start, peer):
    server = start(command=(VECTOR_SERVER,))
    peer.meet(VECTOR_GREETING)
    fleet = {}
    for vector in VECTORS:
        printed = (server.directory / "console").stat().st_size
        assert peer.ask(vector["payload"].encode()).decode() == vector["reply"], vector["name"]
        if vector["reply"] == "0":
            identity, fleet[identity] = counts_of(vector["plaintext"])
            sums = {name: sum(counts[name] for counts in fleet.values()) for name in COUNTS}
            expected = [("required", name) for name in REQUIRED] + [("in use", name) for name in IN_USE]
            expected = [(LABELS.get(name, "num" + name), which, str(sums[name])) for which, name in expected]
            wait_until(lambda: len(figures(server.console(printed))) >= len(expected))
            assert figures(server.console(printed)) == expected, vector["name"]
        else:
            wait_until(lambda: len(server.console(printed)) >= len(vector["console"]))
            assert server.console(printed) == vector["console"], vector["name"]


@pytest.mark.parametrize("version", GREETINGS)
def test_peers_of_every_zmtp_version_are_answered(start, peer, version):
    start(command=(VECTOR_SERVER,))
    peer.meet(VECTOR_GREETING)
    message, answer = long_frame(VECTOR_GREETING), b"\0\x011"
    if version == "1.0":
        message = b"\xff" + (len(VECTOR_GREETING) + 1).to_bytes(8, "big") + b"\0" + VECTOR_GREETING
        answer = b"\2\x001"
    with raw_peer(version) as connection:
        connection.sendall(message)
        read_to(connection, answer)


def test_the_vectors_are_those_that_the_script_makes(tmp_path):
    subprocess.run([sys.executable, DOCS / "vectors/make.py", tmp_path / "made"], check=True)
    assert VECTORS == json.loads((tmp_path / "made").read_text())


def test_the_examples_on_the_page_are_counted_and_the_vector(start, peer):
    page = (DOCS / "protocol.md").read_text("utf-8")
    blocks = dict(re.findall(r"```text (\w+)\n(.*?)```", page, re.DOTALL))
    assert all(blocks[name].replace("\n", "") == VECTORS[0][name] for name in ("plaintext", "key", "iv", "payload"))
    start()
    assert [peer.meet().ask(seal(text)) for text in re.findall(r"```json\n(.*?)```", page, re.DOTALL)] == [b"0"]


def test_the_client_on_the_page_reports(start):
    server = start(command=(VECTOR_SERVER,))
    key = DOCS / "vectors/test-public.pem"
    client = [sys.executable, DOCS / "clients/report.py", "tcp://127.0.0.1:9304", key, "hall-9"]
    found = subprocess.run(client, capture_output=True, text=True, check=False)
    assert (found.stdout, found.stderr) == ("0\n", "")
    server.wait_for_cameras(4)
