"""The server as its operator and its instances meet it."""

import base64
import contextlib
import itertools
import json
import os
import re
import resource
import signal
import socket
import subprocess
import termios
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pexpect
import psutil
import pytest
from status_socket_test import snapshot
from support import END_OF_STATUS, HALF_HOUR, IS_RELEASE, LOG_SIZE, TIMEOUT, PORT, SANITIZER, SERVER
from support import Peer, begin_fleet, fill_log, raw_peer, seal, sealed_report, unread, wait_until

LFLAG, IFLAG = 3, 0
FRESH_MODES = termios.tcgetattr(os.openpty()[1])
READY = END_OF_STATUS.replace("\n", "\r\n")


without_sanitizer = pytest.mark.skipif(SANITIZER != "", reason="a sanitizer keeps what is freed")


def modes(terminal):
    return termios.tcgetattr(terminal.fileno())


def in_key_mode(terminal):
    return not modes(terminal)[LFLAG] & (termios.ICANON | termios.ECHO)


def assert_ends(terminal, tmp_path, status=(0, None)):
    """Its program ends, and the terminal is as it was."""
    terminal.expect_exact(pexpect.EOF)
    assert modes(terminal) == FRESH_MODES
    terminal.close()
    assert (terminal.exitstatus, terminal.signalstatus, (tmp_path / "errors").read_text()) == (*status, "")


@pytest.mark.parametrize("key", ["q", "Q", "\x1b", "\x1b\x1b", "xyq", "\x03"])
def test_quit_keys_on_a_terminal(open_terminal, tmp_path, key):
    terminal = open_terminal()
    terminal.expect_exact(READY)
    terminal.send(key)
    assert_ends(terminal, tmp_path)


@pytest.mark.parametrize("value, malformed, garbage, warnings", [("strict", 1, 0, 0), ("lenient", 0, 2, 1)])
def test_frames_are_strict_only_where_the_environment_says_so(start, peer, value, malformed, garbage, warnings):
    server = start(env={"UGS_FRAMES": value})
    peer.meet().socket.send_multipart([b"a", b"b", b"c"])  # with its name two pairs, or one message that is none
    assert Peer(peer.context).connect().ask(sealed_report()) == b"0"
    said = server.console()
    texts = ("0x0084 Invalid incoming data", "Received Invalid Content 0x316", "UGS_FRAMES is set, but not to")
    assert [said.count(text) for text in texts] == [malformed, garbage, warnings]


def test_other_keys_are_ignored_and_not_echoed(open_terminal, tmp_path):
    terminal = open_terminal()
    terminal.expect_exact(READY)
    wait_until(lambda: in_key_mode(terminal))
    assert modes(terminal)[LFLAG] & termios.ISIG and not modes(terminal)[IFLAG] & termios.IXON
    keyboard = os.open(f"/proc/{terminal.pid}/fd/0", os.O_RDONLY | os.O_NOCTTY)
    for key in ("\x1b[A", "\x1bOQ", "\x1b[15~", "\x1bq", "w", "\x13"):
        terminal.send(key)
        wait_until(lambda: not unread(keyboard))  # else it would be read with the next one
    os.close(keyboard)
    terminal.send("q")
    assert_ends(terminal, tmp_path)
    assert terminal.before == ""


@pytest.mark.parametrize("keys, rest", [(b"abqd", b"d"), (b"\x1b[A", b"[A")])
def test_bytes_on_a_pipe_are_keys_and_what_follows_is_left_to_others(start, keys, rest):
    reader, writer = os.pipe()
    os.write(writer, keys)
    start(stdin=reader).wait(TIMEOUT)
    os.close(writer)
    assert os.read(reader, len(keys)) == rest


@pytest.mark.parametrize("keyboard", ["</dev/null", "<&-", "< <(:)"])
def test_without_a_keyboard_it_serves_on_and_idles(start, peer, keyboard):
    server = start(command=("/bin/bash", "-c", f"exec {SERVER} {keyboard}"))
    process = psutil.Process(server.pid)
    peer.meet()
    process.cpu_percent()
    peer.send(seal("{hello}"), 100)
    assert peer.take(100) == [b"1"] * 100
    assert process.cpu_percent() < 60, "a keyboard at its end is being polled"


def test_standard_descriptors_that_were_closed_stay_out_of_reach(start, peer):
    server = start(command=("/bin/sh", "-c", f"exec {SERVER} >&- 2>&-"), ready="")
    peer.meet()
    assert {os.readlink(f"/proc/{server.pid}/fd/{descriptor}") for descriptor in (1, 2)} == {"/dev/null"}


def child_of(shell):
    return psutil.Process(shell.pid).children()[0]


def threads_that_take(number, process):
    """Those that the kernel may choose for a signal, as they do not block it."""
    for status in Path(f"/proc/{process}/task").glob("*/status"):
        blocked = int(re.search(r"SigBlk:\s*(\w+)", status.read_text())[1], 16)
        if not blocked >> (number - 1) & 1:
            yield int(status.parent.name)


def test_ctrl_z_gives_the_terminal_back_and_fg_takes_it_again(open_terminal, peer):
    shell = open_terminal(f"set -m; {SERVER}; for twice in 1 2; do read line; fg; done; echo the code is $?")
    shell.expect_exact(READY)
    for _ in range(2):
        wait_until(lambda: in_key_mode(shell))
        shell.send("\x1a")
        wait_until(lambda: child_of(shell).status() == psutil.STATUS_STOPPED)
        assert modes(shell) == FRESH_MODES
        shell.sendline()
    wait_until(lambda: in_key_mode(shell))
    assert peer.meet().ask(sealed_report()) == b"0"
    shell.send("q")
    shell.expect_exact("the code is 0\r\n")


def test_a_background_job_is_never_stopped_by_the_terminal(open_terminal, peer):
    shell = open_terminal(f"set -m; stty tostop; {SERVER} & read line; fg; echo the code is $?")
    assert peer.meet().ask(sealed_report()) == b"0"
    shell.expect_exact("DETECT NEW REQUEST")
    assert child_of(shell).status() != psutil.STATUS_STOPPED
    assert not in_key_mode(shell)
    shell.sendline()
    wait_until(lambda: in_key_mode(shell))
    shell.send("q")
    shell.expect_exact("the code is 0\r\n")


# A sanitizer handles SIGSEGV itself.
@pytest.mark.parametrize("number", [signal.SIGQUIT, signal.SIGABRT, signal.SIGUSR1 if SANITIZER else signal.SIGSEGV])
def test_a_deadly_signal_still_gives_the_terminal_back(open_terminal, tmp_path, number):
    terminal = open_terminal()
    wait_until(lambda: in_key_mode(terminal))
    terminal.expect_exact(READY)

    if number != signal.SIGSEGV:  # which a thread that faults takes itself
        wait_until(lambda: list(threads_that_take(number, terminal.pid)) == [terminal.pid])
    terminal.kill(number)
    assert_ends(terminal, tmp_path, (None, number))


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_each_ending_signal_ends_it_well_even_under_load(start, peer, number):
    server = start()
    peer.meet()
    peer.send(sealed_report(), 400)
    peer.take()
    server.send_signal(number)
    server.end()
    assert server.log().endswith("Cleaning up Reply socket in main thread!\n")


@pytest.mark.parametrize("console", ["pipe", "/dev/full"])
def test_a_broken_console_does_not_end_it(start, peer, console):
    reader, writer = os.pipe()
    with open(writer if console == "pipe" else console, "wb") as output:
        server = start(stdout=output, ready="")
    peer.meet()
    os.close(reader)
    for name in "PIPE XFSZ TTIN TTOU CHLD WINCH URG STOP".split():
        server.send_signal(signal.Signals[f"SIG{name}"])
        server.send_signal(signal.SIGCONT)
        assert peer.ask(sealed_report()) == b"0"
    assert "0x008" not in server.log()


def socket_pair():
    return (end.detach() for end in socket.socketpair())


@pytest.mark.parametrize("console", [os.pipe, socket_pair, os.openpty])
def test_a_console_that_is_not_read_loses_lines_and_counts_them(start, peer, console):
    reader, writer = console()
    server = start(stdout=writer, ready="")
    os.close(writer)
    peer.meet()
    peer.send(sealed_report(), 150)
    assert peer.take(150) == [b"0"] * 150
    os.set_blocking(reader, False)
    text = ""

    def losses():
        nonlocal text
        with contextlib.suppress(OSError):  # read to its end
            while chunk := os.read(reader, 65536):
                text += chunk.decode().replace("\r", "")
        return re.findall(r"^\[warning\] The console was not read: (\d+) lines are missing here\n", text, re.MULTILINE)

    wait_until(lambda: peer.ask(sealed_report()) == b"0" and losses())
    server.end()
    lost = losses()
    assert text.count("\n[") == server.log().count("\n[") + len(lost) - sum(map(int, lost))


def test_nohup_keeps_it_from_hanging_up(start, peer):
    server = start(command=("/usr/bin/env", "--ignore-signal=HUP", SERVER))
    server.send_signal(signal.SIGHUP)
    for key in (b"x", b"y"):  # a tick of its main loop each
        server.type(key)
    peer.meet()


FIRST_WORDS = "[warning] UGS version 2025.3.0-3380\n\nPress a key to exit...\n"


@pytest.mark.parametrize(
    "argument, more", [("SPDLOG_LEVEL=warn", ""), ("SPDLOG_LEVEL=info", "[info] Total cameras in use : 0\n")]
)
def test_levels_and_the_first_words_on_the_console(start, argument, more):
    server = start("x", argument, env={"SPDLOG_LEVEL": "warn"}, ready="")
    server.type(b"x")  # when it is read, all has been said
    assert server.console() == FIRST_WORDS if not more else server.console().startswith(FIRST_WORDS + more)


def test_a_full_log_file_is_rotated_and_five_are_kept(start, peer, tmp_path):
    logs = [tmp_path / "logs" / f"KorvaneUGS.log{'.' * bool(i)}{i or ''}.txt" for i in range(6)]
    fill_log(tmp_path, room=1500)
    for number, file in enumerate(logs[1:], 1):
        file.write_text(f"file {number}")
    server = start(directory=tmp_path)
    assert peer.meet().ask(sealed_report(MaxCameras=7)) == b"0"
    server.end()
    assert LOG_SIZE - 200 < logs[1].stat().st_size <= LOG_SIZE
    assert [file.read_text() for file in logs[2:]] == [f"file {number}" for number in range(1, 5)]
    assert len(list(logs[0].parent.iterdir())) == 6
    assert "MaxCameras    : in use: 7\n" in server.log()


@pytest.mark.parametrize("obstacle", ["a file as directory", "a FIFO"])
def test_without_a_log_file_it_does_not_start(open_terminal, tmp_path, obstacle):
    if obstacle == "a FIFO":
        (tmp_path / "logs").mkdir()
        os.mkfifo(tmp_path / "logs/KorvaneUGS.log.txt")
    else:
        (tmp_path / "logs").touch()
    terminal = open_terminal()
    terminal.expect_exact(pexpect.EOF)
    assert modes(terminal) == FRESH_MODES
    assert "Failed opening file logs/KorvaneUGS.log.txt for writing" in (tmp_path / "errors").read_text()
    terminal.close()
    assert terminal.exitstatus != 0


def test_the_soft_limit_of_open_files_is_raised(start):
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    server = start(command=("/bin/sh", "-c", f"ulimit -Sn 64; exec {SERVER}"))
    assert resource.prlimit(server.pid, resource.RLIMIT_NOFILE) == (hard, hard)


@pytest.mark.skipif(not IS_RELEASE, reason="developers may look into their builds")
def test_neither_a_core_nor_a_debugger_shows_its_memory(start):
    # Even as root. If this fails, no server stays behind.
    without_powers = "setpriv --pdeathsig=KILL --bounding-set=-all --inh-caps=-all --ambient-caps=-all".split()
    command = f"ulimit -Sc $(ulimit -Hc); {' '.join(without_powers)} {SERVER}; true"
    server = start(command=("sh", "-c", command))
    process = child_of(server)
    assert resource.prlimit(process.pid, resource.RLIMIT_CORE) == (0, 0)
    with subprocess.Popen([*without_powers, "sleep", "60"]) as other:
        wait_until(lambda: psutil.Process(other.pid).name() == "sleep")
        peeks = [(*without_powers, "head", "-c1", f"/proc/{pid}/auxv") for pid in (other.pid, process.pid)]
        assert [subprocess.run(peek, check=False, capture_output=True).returncode for peek in peeks] == [0, 1]
        other.kill()
    server.may_say = "Aborted\n"  # and not "Aborted (core dumped)"
    process.send_signal(signal.SIGABRT)
    server.wait(TIMEOUT)


def test_peers_that_take_every_descriptor_do_not_keep_the_others_from_their_answers(start, peer, context):
    server = start(command=("/usr/bin/prlimit", "--nofile=64:64", SERVER))
    process = psutil.Process(server.pid)
    peer.connect()
    wait_until(lambda: "ESTABLISHED" in [connection.status for connection in process.connections()])
    with contextlib.ExitStack() as crowd:
        for _ in range(64):
            crowd.enter_context(socket.create_connection(("127.0.0.1", PORT)))
        wait_until(lambda: process.num_fds() == 64)
        assert peer.ask(seal("{hello}")) == b"1"  # the first reply since the start
    Peer(context).meet()


def test_a_tick_takes_ten_milliseconds(start, peer):
    start()
    peer.meet()
    greeting = seal("{hello}")

    def fast_enough():
        """A busy machine has a quick moment now and then: ten answers in a row within 15 ms each."""
        began = time.monotonic()
        peer.send(greeting, 100)
        times = [peer.take() and time.monotonic() for _ in range(100)]
        assert times[-1] - began >= 0.99, "a tick is never shorter"
        return any(last - first < 0.15 for first, last in zip(times, times[10:]))

    wait_until(fast_enough)


@without_sanitizer
def test_memory_is_given_back_after_giant_requests_and_a_message_without_an_end(start, peer):
    server = start(clock="x1")
    peer.meet()
    before, giant = server.memory(), base64.b64encode(b"[" * 20_000_000 + b"}")
    peer.send(giant, 4)
    assert peer.take(4) == [b"2"] * 4
    server.wait_for_memory_below(before + 5e6)
    with raw_peer() as connection:
        connection.sendall(b"\1\0" * 6_000_000)  # empty frames, each with more to come
        wait_until(lambda: server.memory() > before + 300e6)
    server.rate = "x30"  # all its clocks run faster, so that its turns are shorter
    server.shift_clock(0)
    server.wait_for_memory_below(before + 15e6)


def test_half_an_hour_rebuilds_the_server_once_with_an_empty_registry(start, peer):
    server = start(clock="")
    assert peer.meet().ask(sealed_report("before", MaxCameras=3)) == b"0"
    server.rebuild()
    assert peer.meet().ask(sealed_report("after", MaxCameras=5)) == b"0"
    server.wait_for_cameras(5)
    for _ in range(3):  # a tick of its main loop each
        server.type(b"x")
    server.shift_clock(HALF_HOUR - 86400)  # a clock set back delays the next rebuild and expires what it left ahead
    server.wait_for("Deleting korvane ")
    assert peer.ask(sealed_report("after", MaxCameras=6)) == b"0"
    server.wait_for_cameras(6)
    assert server.console().count("Refreshing") == 1


def test_a_taken_port_is_said_and_served_from_the_next_rebuild_on(start, peer):
    with socket.socket() as holder:
        holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        holder.bind(("0.0.0.0", PORT))
        holder.listen()
        server = start(clock="")
        server.wait_for(f"[error] 0x0081: tcp://0.0.0.0:{PORT}: Address already in use\n")
    server.rebuild()
    assert peer.meet().ask(sealed_report()) == b"0"


def test_rebuilds_under_a_stream_of_reports_lose_nothing_but_time(start, peer, tmp_path):
    path = tmp_path / "status"
    server = start(clock="", env={"UGS_STATUS": str(path)})
    peer.meet()
    stream = begin_fleet("--json", "--rate", "150", "--duration", "8" if SANITIZER == "thread" else "3", "--drain", "1")

    def look():
        while stream.poll() is None:
            snapshot(path)

    with ThreadPoolExecutor() as pool:
        looking = pool.submit(look)
        for number in itertools.count(1):
            if stream.poll() is not None:
                break
            server.rebuild(number)
            peer.meet()
        looking.result()
    assert snapshot(path)["server"][0]["rebuilds"] == number - 1 > 0
    assert list(json.loads(stream.communicate()[0])["answered"]) == ["0"]
    assert "0x008" not in server.console()
