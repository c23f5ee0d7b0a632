"""What `ugs` tells an operator of a server, here one that says through its status socket what a test wants."""

import csv
import io
import json
import os
import pty
import re
import select
import signal
import socket
import subprocess
import termios
import time

import pytest
from support import ROOT, SANITIZER, TIMEOUT, UGS, wait_until

pytestmark = pytest.mark.skipif(SANITIZER == "thread", reason="these commands have one thread")

NOW = 1_790_000_000
HOSTILE = 'a"b\n\x1b[2J\x7f\x9b\u202e=1,' + "é" * 20_000
SERVER = {"type": "server", "schema": 1, "version": "1", "host": "h", "time": NOW, "started": NOW - 9000}
SERVER |= {"serving": True, "log_written": NOW, "queue_limit": 32, "open_files_limit": 1024}
SERVER |= {"reports_per_second": 0.5, "reports_per_second_limit": 93}
END = {"type": "end"}


def instance(identity, **members):
    usual = {"key": identity, "address": "10.0.0.9", "state": "alive", "period": 30, "last": NOW - 7, "flags": []}
    return {"type": "instance", "identity": identity, "cameras_count": 1, "counts": {}} | usual | members


def lines(*objects):
    return b"".join(json.dumps(item, ensure_ascii=False).encode() + b"\n" for item in objects)


def run(*arguments, path, **options):
    environment = {**os.environ, "UGS_STATUS": str(path)}
    return subprocess.run([UGS, *arguments], capture_output=True, check=False, env=environment, **options)


def steers_a_terminal(output):
    text = output.decode()  # it must be UTF-8, too
    return re.search("[\x00-\x08\x0b-\x1f\x7f-\x9f\u202a-\u202e\u2066-\u2069]", text.replace("\r\n", "\n"))


@pytest.mark.parametrize("arguments", [("status",), ("instances",), ("losses",), ("refusals",)])
def test_nothing_that_peers_send_steers_a_terminal(serve, arguments):
    hostile = {"container": HOSTILE, "address": HOSTILE, "state": HOSTILE, "flags": [HOSTILE], "cameras": [HOSTILE]}
    loss = {"type": "loss", "identity": HOSTILE, "lost": NOW, "reason": HOSTILE, "counts": {HOSTILE: 1}}
    refusal = {"type": "refusal", "address": HOSTILE, "code": HOSTILE, "identity": HOSTILE, "last": NOW}
    peers = instance(HOSTILE, **hostile), instance("late", state="late", address=HOSTILE), loss, refusal
    path = serve(lines(SERVER, *peers, END).replace(b'"a\\"b', b'"=\xff\\"b'))
    forms = [(), ("--json",)] + ([("--csv",)] if arguments != ("status",) else [])
    outputs = [run(*arguments, *form, path=path) for form in forms]
    assert {result.returncode for result in outputs} == {int(arguments == ("status",))}
    assert not any(steers_a_terminal(result.stdout) for result in outputs)
    assert json.loads(outputs[1].stdout) and len(outputs[0].stdout) < 10_000_000
    if arguments == ("instances",):
        assert json.loads(outputs[1].stdout)["instances"][0]["identity"] == "=\ufffd" + HOSTILE[1:]
        csv.field_size_limit(10_000_000)
        rows = list(csv.reader(io.StringIO(outputs[2].stdout.decode(), newline="")))
        assert rows[1][0].startswith("'=\ufffd\"b\ufffd\ufffd[2J") and {len(row) for row in rows} == {len(rows[0])}


@pytest.mark.parametrize(
    "code, kinds, objects",
    [
        (0, [], [instance("a"), instance("b", state="not_back")]),
        (1, ["not_serving"], [{"serving": False}]),
        (1, ["queue"], [{"queue": 30}]),
        (1, ["open_files"], [{"open_files": 1000}]),
        (1, ["near_capacity"], [{"reports_per_second": 90}]),
        (1, ["log_failures"], [{"log_failures": 1, "log_failed": NOW - 3599}]),
        (1, ["log_failures"], [{"log_failed": NOW - 4000, "log_written": NOW - 4001, "reports_per_second": 0}]),
        (1, ["log_silent"], [{"log_written": NOW - 100}]),
        (1, ["late"], [instance("a", state="late")]),
        (1, ["not_back"], [instance("a", state="not_back", last=NOW - 66)]),
        (1, ["huge_count", "same_identity", "same_camera"], [
            instance("a", flags=["new", "huge_count", "same_identity", "same_camera"])]),
        (1, ["lost"], [{"type": "loss", "lost": NOW - 3599}]),
        (0, [], [{"type": "loss", "lost": NOW - 9, "returned": NOW}]),
        (1, ["lost"], [{"type": "loss", "lost": NOW - 9, "returned": NOW}] * 1000),
        (1, ["refused"], [{"type": "refusal", "code": "0xE248", "last": NOW - 3599}]),
        (0, [], [{"log_failures": 1, "log_failed": NOW - 3600}, {"type": "loss", "lost": NOW - 3600}, {"type": "loss", "lost": NOW, "reason": "signed_off"}, {"type": "refusal", "last": NOW - 3600}, {"type": "new"}]),
    ],
)  # fmt: skip
def test_status_says_what_is_wrong(serve, code, kinds, objects):
    server = SERVER | {name: value for item in objects if "type" not in item for name, value in item.items()}
    result = run("status", "--json", path=serve(lines(server, *(item for item in objects if "type" in item), END)))
    status = json.loads(result.stdout)
    assert (result.returncode, [problem["kind"] for problem in status["problems"]]) == (code, kinds)
    assert "refused" not in kinds or "Plates is missing" in status["problems"][0]["text"]
    assert all(f"\n| `{kind}` | " in (ROOT / "docs/status.md").read_text("utf-8") for kind in kinds)


def test_many_who_are_refused_leave_the_status_on_one_screen(serve):
    refusals = [
        {"type": "refusal", "address": f"10.0.0.{n}", "code": "0x316", "last": NOW - n % 100} for n in range(250)
    ]
    result = run("top", path=serve(lines(SERVER, *refusals, END)))  # without a terminal it is `status`
    said = result.stdout.decode()
    assert (result.returncode, said.count("is refused")) == (1, 5) and said.count("\n") < 24
    assert "10.0.0.200 is refused" in said and "and 245 more are refused" in said


def test_who_is_still_away_is_named_before_those_who_returned(serve):
    losses = [{"type": "loss", "key": f"{n}", "identity": f"gate-{n}", "lost": NOW - n} for n in range(1000)]
    returned = [loss | ({} if loss["key"] in ("70", "80") else {"returned": NOW}) for loss in losses]
    told = [lines(SERVER, returned[0], END), lines(SERVER | {"expired": 1200, "never_back": 1}, *returned, END)]
    path = serve(lambda: told[-1])
    status = run("status", path=path).stdout.decode()
    assert re.search(r"2 or more instances .* still away: gate-70 .*, gate-80 .*; 998 others have returned", status)
    rows = run("losses", path=path).stdout.decode().splitlines()
    assert [row.split()[0] for row in rows[1:4]] == ["gate-70", "gate-80", "gate-0"] and "1201 instances" in rows[-1]
    told.pop()
    assert b"All is well\n1 instance was lost in the last hour, and has returned" in run("status", path=path).stdout


def test_who_is_counted_twice_can_be_told_apart(serve):
    keys = [digit * 64 for digit in "ab"]
    twins = [
        instance("yard-1", key=key, container="c" * 64, flags=["same_identity"], cameras=["rtsp://" + key[:3]])
        for key in keys
    ]
    path = serve(lines(SERVER, instance("gate", container="d" * 63), *twins, END))
    assert b"yard-1 is counted 2 times" in run("status", path=path).stdout
    table = [line.split() for line in run("instances", path=path).stdout.decode().splitlines()]
    assert [(row[1], row[-2], row[-1]) for row in table[2:]] == [
        (key[:12], "c" * 12, "rtsp://" + key[:3]) for key in keys
    ]
    rows = list(csv.DictReader(io.StringIO(run("instances", "--csv", path=path).stdout.decode(), newline="")))
    assert [(row["key"], row["container"]) for row in rows[1:]] == [(key, "c" * 64) for key in keys] and "" not in rows[
        0
    ]
    assert json.loads(run("instances", "--json", path=path).stdout)["instances"][1]["container"] == "c" * 64


def test_users_of_a_feature_are_summed_and_sorted(serve):
    counts = [{"Plates": 2}, {"PX": 9}, {"Plates": 2**32 - 1}]
    path = serve(lines(SERVER, *(instance(f"i{n}", counts=count) for n, count in enumerate(counts)), END))
    users = json.loads(run("instances", "--feature", "Plates", "--sort", "Plates", "--json", path=path).stdout)
    assert ([user["identity"] for user in users["instances"]], users["sum"]) == (["i2", "i0"], 2**32 + 1)
    assert b"Plates in use: 4294967297, by 2 instances" in run("instances", "--feature", "Plates", path=path).stdout
    assert b"did you mean Plates" in run("instances", "--feature", "plate", path=path).stderr


@pytest.mark.parametrize(
    "text, reason",
    [
        (lines(SERVER), b"cut short"),
        (lines(SERVER, instance("a"))[:-9], b"no status"),
        (lines(SERVER | {"schema": 2}, END), b"schema 2"),
        (lines(END), b"no status"),
        (b"", b"cut short"),
    ],
)
def test_what_is_no_whole_snapshot_is_no_answer(serve, text, reason):
    result = run("status", path=serve(text))
    assert (result.returncode, result.stdout) == (3, b"") and reason in result.stderr


def test_each_way_to_have_no_server_has_its_sentence(tmp_path, serve):
    def complaint(path, **options):
        result = run("status", path=path, **options)
        assert (result.returncode, result.stdout) == (3, b"")
        return result.stderr

    assert b"is it running, with UGS_STATUS set?" in complaint(tmp_path / "nothing")
    with socket.socket(socket.AF_UNIX) as left_behind:
        left_behind.bind(str(tmp_path / "gone"))
    assert b"is gone" in complaint(tmp_path / "gone")
    assert b"is no socket" in complaint(tmp_path)
    if os.geteuid() == 0:
        # Run through a descriptor: another user may not reach this build.
        path = serve(lines(SERVER, END))
        path.chmod(0o660)
        stray = ["/usr/bin/setpriv", "--reuid", "65534", "--clear-groups", "--inh-caps=-all"]
        for directory in (tmp_path, tmp_path.parent, tmp_path.parent.parent):
            directory.chmod(0o755)
        with open(UGS, "rb") as program:
            command = [*stray, f"/proc/self/fd/{program.fileno()}", "status", "--socket", path]
            result = subprocess.run(command, capture_output=True, check=False, pass_fds=[program.fileno()])
        assert result.returncode == 3 and b"adduser nobody korvaneugs" in result.stderr


@pytest.mark.parametrize("rows, columns", [(24, 80), (10, 30)])
@pytest.mark.parametrize("ending", ["q", "\x03", signal.SIGTERM])
def test_top_fits_its_terminal_and_leaves_it_as_it_was(serve, open_terminal, rows, columns, ending):
    path = serve(lines(SERVER, *(instance(f"hall-{n:02}{HOSTILE[:99]}", last=NOW - n) for n in range(50)), END))
    terminal = open_terminal(
        f"trap : INT; read go; TERM=xterm sh -c 'echo pid $$.; exec {UGS} top --socket {path}'; echo left; read wait"
    )
    terminal.setwinsize(rows, columns)
    before = termios.tcgetattr(terminal.child_fd)
    terminal.send("go\n")
    terminal.expect(r"pid (\d+)\.")
    pid = int(terminal.match.group(1))
    terminal.expect_exact("\x1b[?1049h")
    terminal.expect_exact("hall-49")  # the longest silence comes first
    terminal.expect_exact(f"\x1b[{rows};1H\x1b[2K")
    terminal.send("\x1b[B\r")
    terminal.expect_exact("identity   hall-48")
    terminal.send("\x1b\x1b[F")
    terminal.expect_exact("\x1b[7mhall-00")
    terminal.send("c")  # a new order, a filter and its end show the list from its first row
    terminal.expect_exact(f"  1-{rows - 4} of 50 ")
    terminal.send("\x1b[F/hall-07\r")
    terminal.expect(r"\x1b\[4;1H\x1b\[2K\x1b\[7mhall-07[^\x1b]*")
    assert len(terminal.after.split("\x1b[7m")[1]) == columns
    os.kill(pid, ending) if isinstance(ending, signal.Signals) else terminal.send(ending)
    terminal.expect_exact("\x1b[?25h\x1b[?1049l")
    terminal.expect_exact("left")
    assert termios.tcgetattr(terminal.child_fd) == before


def test_top_on_a_terminal_that_cannot_be_steered_is_the_status(serve, open_terminal):
    path = serve(lines(SERVER, instance("hall-7"), END))
    terminal = open_terminal(f"{UGS} status --socket {path}; echo =; {UGS} top --socket {path}; echo =; read wait")
    terminal.expect_exact("=")
    status = terminal.before
    terminal.expect_exact("=")
    assert terminal.before.strip() == status.strip() and "1 instance" in status


def test_top_gives_the_terminal_back_while_it_is_stopped_and_follows_its_size(serve, open_terminal):
    path = serve(lines(SERVER, *(instance(f"hall-{n:02}", last=NOW - n) for n in range(50)), END))
    top = f"TERM=xterm {UGS} top --socket {path}"
    terminal = open_terminal(f"set -m; read go; {top}; echo stopped; read go; fg; echo left; read wait")

    def resize(rows):
        terminal.setwinsize(rows, 60)
        return f"\x1b[{rows};1H\x1b[2Kq quit"

    before = termios.tcgetattr(terminal.child_fd)
    foot = resize(24)
    terminal.send("go\n")
    terminal.expect_exact("\x1b[?1049h")
    terminal.expect_exact(foot)
    began = time.monotonic()
    for rows in range(10, 30):
        terminal.expect_exact(resize(rows))
    assert time.monotonic() - began < 10  # and not a second each, until the next snapshot
    terminal.send("\x1a")
    terminal.expect_exact("\x1b[?25h\x1b[?1049l")
    terminal.expect_exact("stopped")
    assert termios.tcgetattr(terminal.child_fd) == before
    foot = resize(12)
    terminal.send("go\n")
    terminal.expect_exact("\x1b[?1049h")
    terminal.expect_exact(foot)
    terminal.send("\x1b[B")  # keys come one by one again
    terminal.expect_exact("\x1b[7mhall-48")
    terminal.send("q")
    terminal.expect_exact("\x1b[?25h\x1b[?1049l")
    terminal.expect_exact("left")
    assert termios.tcgetattr(terminal.child_fd) == before


def test_top_ends_though_its_terminal_takes_nothing(serve):
    path = serve(lines(SERVER, *(instance(f"hall-{n}") for n in range(500)), END))
    terminal, inside = pty.openpty()
    termios.tcsetwinsize(inside, (500, 400))  # more than a terminal holds for its reader
    with subprocess.Popen([UGS, "top", "--socket", path], stdin=inside, stdout=inside, env={"TERM": "xterm"}) as top:
        os.read(terminal, 10)
        wait_until(lambda: not select.select([], [inside], [], 0)[1])
        top.terminate()
        assert top.wait(TIMEOUT) == 0
