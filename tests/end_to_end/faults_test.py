"""What may happen to a server in years; bounded in count and time. `./dev faults [NAME...]` and `./dev soak MINUTES`."""

import itertools
import json
import os
import re
import subprocess
from pathlib import Path

import psutil
import pytest
from support import BUILD, HALF_HOUR, ROOT, SERVER, VECTOR_GREETING, VECTOR_SERVER, VECTORS
from support import begin_fleet, sealed_report, wait_until

pytestmark = pytest.mark.slow
ROUNDS = int(os.environ.get("UGS_SOAK_MINUTES", "3"))


FLEET = ("--json", "--instances", "40", "--rate", "50", "--duration")


def assert_all_counted(fleet):
    outcome = json.loads(fleet.communicate()[0])
    assert (fleet.returncode, outcome["answered"]) == (0, {"0": outcome["reports"]}), outcome
    return outcome


def test_disk_full(start, peer):
    """As root, or where a user may mount in a namespace."""
    mount = f"mkdir logs && mount -t tmpfs -o size=3m none logs && exec {SERVER}"
    server = start(command=("unshare", "--mount", "sh", "-c", mount))
    server.may_say = r"\[\*\*\* LOG ERROR .*"
    logs = Path(f"/proc/{server.pid}/cwd/logs")  # it sees another file system than we do
    (logs / "filler").write_bytes(b"x" * 2_000_000)
    fleet = begin_fleet(*FLEET, "30")
    wait_until(lambda: os.statvfs(logs).f_bavail == 0)
    assert_all_counted(fleet)
    (logs / "filler").unlink()
    os.truncate(logs / "KorvaneUGS.log.txt", 0)
    peer.meet()

    def logged():
        """Lines are lost until the file is opened anew."""
        assert peer.ask(sealed_report("after", MaxCameras=777_000_000)) == b"0"
        return re.search(r"in use: 777\d{6}\n", (logs / "KorvaneUGS.log.txt").read_text(errors="replace"))

    wait_until(logged)


def test_reply_storm():
    """A report by ThreadSanitizer would end it with another code."""
    found = subprocess.run(
        [BUILD.parent / "tsan/tests/transport-storm", "60"], capture_output=True, text=True, check=False
    )
    assert found.returncode == 0, found.stdout + found.stderr


def test_soak(start, peer):
    """Rounds of a minute: a rebuild, then a fleet, and beside it every vector that is refused, over and over."""
    server = start(command=(VECTOR_SERVER,), clock="")
    process, hostile, figures = psutil.Process(server.pid), [v for v in VECTORS if v["reply"] != "0"], []
    for number in range(1, ROUNDS + 1):
        os.truncate(server.directory / "console", 0)
        server.shift_clock(HALF_HOUR * number)
        server.wait_for("Refreshing UGS server...\n")
        peer.meet(VECTOR_GREETING)
        fleet = begin_fleet(*FLEET, "60", key=ROOT / "docs/vectors/test-public.pem")
        for refused, vector in enumerate(itertools.cycle(hostile)):
            if fleet.poll() is not None:
                break
            assert peer.ask(vector["payload"].encode()).decode() == vector["reply"], vector["name"]
        outcome = assert_all_counted(fleet)
        assert not peer.socket.poll(0), "an answer too many"
        peer.socket.close()
        wait_until(lambda: "ESTABLISHED" not in [c.status for c in process.connections()])
        figures.append((process.num_fds(), process.num_threads(), server.memory()))
        print(
            f"round {number}: {outcome['reports']} counted in {outcome['max_ms']:.0f} ms at most, {refused} refused;",
            end=" ",
        )
        print("{} descriptors, {} threads, {} bytes".format(*figures[-1]), flush=True)
    assert figures[-1][:2] == figures[0][:2] and figures[-1][2] < figures[0][2] + 4e6, figures
