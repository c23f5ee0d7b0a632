"""Brings about what may befall a server in years, and prints PASS or FAIL with a figure for each fault.

`./dev faults [NAME...]` runs it, as root where a fault needs it (a full disk, another user). Everything stays on
127.0.0.1 and is bounded in count and time; `--list` names the faults.
"""

import contextlib
import ctypes
import mmap
import os
import random
import signal
import socket
import struct
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../end_to_end"))
import zmq  # noqa: E402
from support import PORT, SERVER, UGS, Peer, Server, document, seal, wait_until  # noqa: E402

TRANSPORT = os.path.join(os.environ["UGS_BUILD_DIR"], "tests/transport-faults")
KEY = os.path.join(os.environ["UGS_KEY_DIR"], "public.pem")
NOBODY = 65534
HALF_HOUR = 1801  # seconds of wall clock after which a server is rebuilt
FAULTS = {}


def fault(name):
    return lambda function: FAULTS.setdefault(name, function)


class Trial(contextlib.ExitStack):
    """What one fault starts, and ends again."""

    addCleanup = contextlib.ExitStack.callback

    def server(self, **options):
        return Server(self, keep=10**6, **options)

    def peer(self):
        return Peer(self).meet()

    def background(self, function):
        """Calls `function` over and over until the trial ends."""
        stop = threading.Event()

        def loop():
            while not stop.is_set():
                function()

        thread = threading.Thread(target=loop, daemon=True)
        thread.start()
        self.callback(thread.join)
        self.callback(stop.set)


def log_path(server, index=""):
    return os.path.join(server.directory, f"logs/KorvaneUGS.log{index}.txt")


def log_text(server):
    """The log, of a server that may see another file system than we do."""
    with open(f"/proc/{server.process.pid}/cwd/logs/KorvaneUGS.log.txt", encoding="utf-8", errors="replace") as file:
        return file.read()


def fill_log(server_directory, room):
    """A log file that rotates after `room` more bytes."""
    os.makedirs(os.path.join(server_directory, "logs"), exist_ok=True)
    with open(os.path.join(server_directory, "logs/KorvaneUGS.log.txt"), "w", encoding="ascii") as file:
        file.write(("x" * 99 + "\n") * ((10485760 - room) // 100))


def scratch(trial):
    import tempfile

    directory = tempfile.mkdtemp()
    os.chmod(directory, 0o777)
    trial.callback(subprocess.run, ["rm", "-rf", directory])
    return directory


def resident(server):
    with open(f"/proc/{server.process.pid}/status", encoding="ascii") as file:
        return next(int(line.split()[1]) * 1024 for line in file if line.startswith("VmRSS"))


def fleet(*arguments):
    """Runs a fleet to its end and requires that every report was answered "0"."""
    import json

    output = subprocess.run(
        [UGS, "fleet", "--key", KEY, "--json", *map(str, arguments)], capture_output=True, text=True, check=False
    )
    outcome = json.loads(output.stdout)
    require(outcome["unanswered"] == 0 and set(outcome["answered"]) == {"0"}, output.stdout)
    return outcome


def rebuild(server, shift):
    """Moves the clock on, and returns when the server begins to be rebuilt for it."""
    mark = server.printed
    server.shift_clock(shift)
    wait_until(lambda: "Refreshing UGS server..." in server.console(mark), "the rebuild")


def require(condition, what):
    if not condition:
        raise AssertionError(what)


def milliseconds(ask):
    start = time.monotonic()
    ask()
    return (time.monotonic() - start) * 1000


def probe(peer, times=20):
    """The slowest of some answers to a greeting, in ms."""
    greeting = seal(b"{hello}")
    return max(milliseconds(lambda: require(peer.ask(greeting) == b"1", "another answer")) for _ in range(times))


def require_counted(server, peer, identity):
    """A report is answered, and the sum that it brings about stands in the log file within 10 s."""

    def counted():
        cameras = random.randrange(2**32)  # nobody has had this sum before
        require(peer.ask(seal(document(identity, MaxCameras=cameras))) == b"0", "not answered 0")
        for _ in range(12):  # lines wait in a buffer for the flush that comes every 5 s
            time.sleep(0.5)
            with contextlib.suppress(FileNotFoundError):  # not made again yet
                if f": in use: {server.figures()['MaxCameras']}\n" in log_text(server):
                    return True
        return False

    wait_until(counted, "the report in the log file")


def run(*command):
    output = subprocess.run(command, capture_output=True, text=True, check=False)
    require(output.returncode == 0, f"exit code {output.returncode}: {output.stdout}{output.stderr[-2000:]}")
    return output.stdout.strip()


def handshake(properties=b""):
    """What a DEALER sends before its frames (ZMTP 3.0, ZeroMQ RFC 23)."""
    ready = b"\x05READY\x0bSocket-Type\0\0\0\x06DEALER" + properties
    return b"\xff" + b"\0" * 8 + b"\x7f\x03\0NULL" + b"\0" * 48 + b"\x06" + struct.pack(">Q", len(ready)) + ready


def connect(data=b"", frames=None):
    """A connection over which `data` was sent, or a handshake and then `frames`."""
    connection = socket.create_connection(("127.0.0.1", PORT), 10)
    with contextlib.suppress(OSError, IndexError):  # the server may hang up in the middle
        connection.sendall(data if frames is None else handshake())
        if frames is not None:
            # Greeting, flags, length: a server hangs up on frames that come before it has sent its READY.
            head = connection.recv(66, socket.MSG_WAITALL)
            connection.recv(head[-1], socket.MSG_WAITALL)
            connection.sendall(frames)
    return connection


@fault("reply-storm")
def reply_storm(trial, program=TRANSPORT, seconds=60):
    client = subprocess.Popen([program, "client", "19305"])
    trial.callback(client.wait)
    trial.callback(client.kill)
    return run(program, "storm", "19305", str(seconds))


@fault("reply-storm-tsan")
def reply_storm_tsan(trial):
    """No report by ThreadSanitizer: it would end the process with another code."""
    return reply_storm(trial, TRANSPORT.replace("release", "tsan"))


@fault("churn")
def churn(trial):
    return run(TRANSPORT, "churn", "2000")


@fault("peers-that-never-read")
def deaf_peers(trial):
    return run(TRANSPORT, "deaf", "50", "4000")


@fault("peer-names")
def peer_names(trial):
    names = {name for _ in range(2) for name in run(TRANSPORT, "identities").splitlines()}
    require(len(names) == 4, f"the same name twice: {names}")
    library = ctypes.CDLL(None)
    unseeded = {library.rand() for _ in range(1000)}  # how many libzmq draws before a name varies
    numbers = {int.from_bytes(map(int, name.strip(".").split(".")[1:]), "big") & 0x7FFFFFFF for name in names}
    require(not numbers & unseeded, f"names of a generator that nobody seeded: {names}")
    return f"first names {', '.join(sorted(names))}"


@fault("port-taken")
def port_taken(trial):
    first, second = trial.server().started(), trial.server(clock=True)
    second.wait_for(f"0x0081: tcp://0.0.0.0:{PORT}: Address already in use")
    first.type(b"q")
    first.wait_for_end()
    second.shift_clock(HALF_HOUR)
    peer = trial.peer()  # served after the rebuild

    # Takes the port in the moment in which the old server has let go of it.
    squatter = socket.socket()
    squatter.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    second.shift_clock(2 * HALF_HOUR)

    def taken():
        with contextlib.suppress(OSError):
            squatter.bind(("0.0.0.0", PORT))
            squatter.listen()
            return True
        return False

    deadline = time.monotonic() + 20
    while not taken() and time.monotonic() < deadline:
        pass
    second.wait_for("0x0081", times=2)
    squatter.close()
    second.shift_clock(3 * HALF_HOUR)
    peer.meet()
    return "served after the next rebuild, twice"


@fault("disk-full")
def disk_full(trial):
    server = trial.server(
        command=(
            "unshare",
            "--mount",
            "sh",
            "-c",
            f"mkdir logs && mount -t tmpfs -o size=3m none logs && exec {SERVER}",
        )
    ).started()
    filler = f"/proc/{server.process.pid}/cwd/logs/filler"
    with open(filler, "wb") as file:
        file.write(b"x" * 2_000_000)
    outcome = fleet("--instances", 50, "--rate", 50, "--duration", 40)
    os.remove(filler)
    os.truncate(f"/proc/{server.process.pid}/cwd/logs/KorvaneUGS.log.txt", 0)
    require_counted(server, trial.peer(), "after")
    return f"{outcome['reports']} reports answered, the slowest in {outcome['max_ms']:.0f} ms"


def fleet_across_rotation(trial, harm, mend):
    """A server of an ordinary user whose log is about to rotate when `harm` comes over its directory."""
    directory = scratch(trial)
    fill_log(directory, room=100_000)
    run("chown", "-R", str(NOBODY), directory)
    server = trial.server(
        directory=directory, command=("setpriv", f"--reuid={NOBODY}", "--clear-groups", SERVER)
    ).started()
    harm(directory + "/logs")
    outcome = fleet("--instances", 50, "--rate", 40, "--duration", 20)
    mend(directory + "/logs")
    require_counted(server, trial.peer(), "after")
    require(outcome["max_ms"] < 350, outcome)  # a stall of 250 ms, and the queue behind it
    return f"{outcome['reports']} reports answered, the slowest in {outcome['max_ms']:.0f} ms"


@fault("log-directory-read-only")
def log_directory_read_only(trial):
    return fleet_across_rotation(trial, lambda logs: os.chmod(logs, 0o555), lambda logs: os.chmod(logs, 0o755))


@fault("log-directory-gone")
def log_directory_gone(trial):
    def take_away(logs):
        os.rename(logs, logs + ".away")
        with open(logs, "w", encoding="ascii"):
            pass  # something else in its place: it cannot be made again

    return fleet_across_rotation(trial, take_away, os.remove)


@fault("descriptor-limit")
def descriptor_limit(trial, rounds=10, seconds=60):
    directory = scratch(trial)
    fill_log(directory, room=200_000)
    server = trial.server(directory=directory, clock=True, command=("prlimit", "--nofile=256:256", SERVER)).started()
    served_in_all = set()
    for number in range(rounds):
        with Trial() as crowd:
            peers = [Peer(crowd) for _ in range(320)]
            time.sleep(3)  # every descriptor is taken before there is a first reply
            served = set()
            greeting = seal(b"{hello}")
            end = time.monotonic() + seconds
            while time.monotonic() < end:
                asked = served or set(range(320))
                for index in asked:
                    peers[index].socket.send(greeting, zmq.DONTWAIT)
                wait = time.monotonic() + 8
                answered = set()
                while time.monotonic() < wait and answered < asked:
                    answered |= {
                        index
                        for index in asked - answered
                        if peers[index].socket.poll(0) and peers[index].socket.recv() == b"1"
                    }
                    time.sleep(0.05)
                require(answered >= served, f"{len(served - answered)} of {len(served)} served peers lost")
                served = answered
            require(len(served) > 200, f"only {len(served)} peers served")
            served_in_all.add(len(served))
        with Trial() as alone:
            require_counted(server, alone.peer(), f"round {number}")
        if number % 2:  # the next crowd meets a server that was just rebuilt
            rebuild(server, HALF_HOUR * number)
    return f"{rounds} times, {min(served_in_all)} or more of 320 peers served throughout, then all"


@fault("clock")
def clock(trial):
    server = trial.server(clock=True).started()
    peer = trial.peer()
    rebuilds = 0
    for shift, forward in (
        (-86400, False),
        (0, True),
        (2400, True),
        (10 * 365 * 86400, True),
        (2**31 - int(time.time()) + 5, True),
    ):
        server.shift_clock(shift)
        rebuilds += forward and shift != 0
        if forward and shift:
            server.wait_for("Refreshing UGS server...", times=rebuilds)
        time.sleep(3)
        peer.meet()
        require(server.console().count("Refreshing") == rebuilds, "another rebuild")
        require_counted(server, peer, f"at {shift}")
    return f"{rebuilds} rebuilds"


@fault("kill-and-restart")
def kill_and_restart(trial):
    directory = scratch(trial)
    peers = [Peer(trial) for _ in range(20)]
    for _ in range(40):
        server = trial.server(directory=directory).started()
        require("0x0081" not in server.console(), server.console())
        greeting = seal(b"{hello}")
        for peer in peers:  # what is sent while it is reconnecting may be lost
            wait_until(lambda: (peer.socket.send(greeting), peer.socket.poll(200))[1], "an answer")
        server.process.kill()
        server.process.wait()
    return "40 times, 20 peers answered each time"


@fault("every-way-to-stop")
def every_way_to_stop(trial):
    longest = 0
    for way in [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, b"q"] * 20:
        with Trial() as load:
            server = load.server(stdin="terminal").started()
            peer = load.peer()
            load.background(lambda: peer.socket.send(seal(document())) or time.sleep(0.005))
            time.sleep(random.random() / 2)
            stop = (lambda: server.type(way)) if isinstance(way, bytes) else (lambda: server.process.send_signal(way))
            took = milliseconds(lambda: (stop(), server.process.wait(10)))
            longest = max(longest, took)
            require(
                took <= 2500 and server.process.returncode == 0, f"{way}: {took:.0f} ms, {server.process.returncode}"
            )
            require(server.modes() == server.modes_before, f"{way}: the terminal is another")
            last = wait_until(lambda: server.console().split("[info] ")[-1].strip(), "a last line")
            require(log_text_of_ended(server).rstrip().endswith(last), f"{way}: the log misses {last!r}")
    return f"80 times, the slowest in {longest:.0f} ms"


def log_text_of_ended(server):
    with open(log_path(server), encoding="utf-8") as file:
        return file.read()


@fault("stray-signals")
def stray_signals(trial):
    server = trial.server().started()
    sent = []

    def send():
        sent.append(
            random.choice(
                [signal.SIGCHLD, signal.SIGWINCH, signal.SIGURG, signal.SIGCONT, signal.SIGPIPE, signal.SIGSTOP]
            )
        )
        server.process.send_signal(sent[-1])
        if sent[-1] == signal.SIGSTOP:
            server.process.send_signal(signal.SIGCONT)
        time.sleep(0.005)

    trial.background(send)
    outcome = fleet("--instances", 50, "--rate", 40, "--duration", 30)
    require("0x0082" not in log_text(server), "a 0x0082 line")
    return f"{len(sent)} signals, {outcome['reports']} reports answered"


@fault("console-gone")
def console_gone(trial):
    for console in ("pipe", "/dev/full"):
        with Trial() as each:
            directory = scratch(each)
            output = subprocess.PIPE if console == "pipe" else open(console, "wb")
            process = subprocess.Popen([SERVER], cwd=directory, stdin=subprocess.DEVNULL, stdout=output)
            each.callback(process.wait)
            each.callback(process.terminate)
            if console == "pipe":
                process.stdout.read(10)
            output = process.stdout or output
            output.close()
            fleet("--instances", 20, "--rate", 40, "--duration", 5)
            require(process.poll() is None, "it ended")
    return "200 reports answered with the reader gone, 200 with /dev/full"


def hostile_connections():
    """Arguments of `connect`."""
    for _ in range(1000):
        yield {"frames": b"\x02" + struct.pack(">Q", 5000) + b"half"}
    generator = random.Random(1)
    samples = [
        b"GET / HTTP/1.1\r\nHost: x\r\n\r\n",
        b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + b"r" * 500,
        b"SSH-2.0-OpenSSH_9.2\r\n",
        handshake(),
    ]
    for number in range(5000):
        sample = bytearray(samples[number % 4])
        for _ in range(number // 4 % 5):
            sample[generator.randrange(len(sample))] = generator.randrange(256)
        yield {"data": bytes(sample)}


@fault("garbage")
def garbage(trial):
    server = trial.server().started()
    peer = trial.peer()
    probe(peer, 100)
    before = resident(server)
    with contextlib.ExitStack() as open_ones:
        for _ in range(200):
            open_ones.enter_context(connect())
        dripping = [open_ones.enter_context(connect(handshake()[:12])) for _ in range(200)]
        slowest = 0
        for number, sending in enumerate(hostile_connections()):
            connect(**sending).close()
            if number % 60 == 0:
                slowest = max(slowest, probe(peer, 1))
                for connection in dripping:
                    with contextlib.suppress(OSError):
                        connection.send(b"\0")
    wait_until(
        lambda: resident(server) - before < 5e6, lambda: f"memory: {(resident(server) - before) / 1e6:.1f} MB more"
    )
    require(slowest <= 100, f"slowest answer {slowest:.0f} ms")
    return f"6,400 connections, the slowest answer in {slowest:.0f} ms, {(resident(server) - before) / 1e6:.1f} MB more"


@fault("giant-frames")
def giant_frames(trial):
    server = trial.server().started()
    peer = trial.peer()
    probe(peer)
    before = resident(server)
    slowest = 0
    for size in (2**62, 2**40, 2**34, 2**64 - 1):
        for _ in range(20):
            with connect(frames=b"\x02" + struct.pack(">Q", size) + b"x" * 10000):
                slowest = max(slowest, probe(peer, 1))
    name = b"n" * 20_000_000
    # libzmq copies the name ten times on its way, each time into new pages: that time is the machine's.
    copies = 10 * min(milliseconds(lambda: mmap.mmap(-1, len(name)).write(name)) for _ in range(5))
    for _ in range(3):
        with connect(handshake(b"\x08Identity" + struct.pack(">I", len(name)) + name)):
            with_name = probe(peer)
        require(
            with_name <= 100 + 2 * copies,
            f"{with_name:.0f} ms beside a name of 20 MB, ten copies of it {copies:.0f} ms",
        )
    wait_until(
        lambda: resident(server) - before < 5e6, lambda: f"memory: {(resident(server) - before) / 1e6:.1f} MB more"
    )
    require(slowest <= 100, f"slowest answer {slowest:.0f} ms")
    return (
        f"the slowest answer in {slowest:.0f} ms, beside a name of 20 MB in {with_name:.0f} ms (ten copies of it: "
        f"{copies:.0f} ms), {(resident(server) - before) / 1e6:.1f} MB more"
    )


@fault("odd-frames")
def odd_frames(trial):
    server = trial.server(clock=True).started()
    slowest = 0
    for round_number in range(1, 4):
        peer = trial.peer()
        hostile = Peer(trial)
        for frames in ([b""], [b"one"], [b"one", b"two", b"three"], [b"1", b"2", b"3", b"4", b"5"]):
            hostile.socket.send_multipart(frames)
        request = Peer(trial, zmq.REQ)
        request.socket.send(b"a REQ peer")
        time.sleep(0.3)
        for _ in range(20):
            peer.socket.send(seal(b"{hello}"))
        hostile.socket.close()
        request.socket.close()
        before = server.console().count("Creating response socket")
        server.shift_clock(HALF_HOUR * round_number)
        server.wait_for("Refreshing UGS server...", times=round_number)
        slowest = max(slowest, milliseconds(peer.meet))
        require(server.console().count("Creating response socket") == before + 1, "not rebuilt")
    require("0x0084 Invalid incoming data" in server.console(), "no 0x0084 line")
    peer.socket.send_multipart([b"one", b"two"])
    stopped = milliseconds(lambda: (server.process.send_signal(signal.SIGTERM), server.process.wait(10)))
    require(stopped <= 1300, f"stop took {stopped:.0f} ms")
    require(slowest <= 1300 + 700, f"rebuild took {slowest:.0f} ms")  # `meet` listens 700 ms for late answers
    return f"3 rebuilds, service again within {slowest:.0f} ms, stop within {stopped:.0f} ms"


@fault("flood")
def flood(trial, count=1_000_000, size=1500):
    server = trial.server(clock=True).started()
    peer = trial.peer()
    probe(peer)
    before = resident(server)
    run(TRANSPORT, "flood", str(PORT), "12000", str(size))
    wait_until(lambda: resident(server) > before + 12000 * size * 0.8, "the queue to fill")
    deadline = time.monotonic() + 200
    while resident(server) > before + 5e6:
        require(time.monotonic() < deadline, f"{(resident(server) - before) / 1e6:.1f} MB not given back by the queue")
        time.sleep(1)
    run(TRANSPORT, "flood", str(PORT), str(count), str(size))
    wait_until(lambda: resident(server) > before + count * size * 0.9, "the queue to fill")
    time.sleep(2)
    each = (resident(server) - before) / count
    require(each <= size + 250, f"{each:.0f} bytes each")
    server.shift_clock(HALF_HOUR)
    server.wait_for("Refreshing UGS server...")
    took = milliseconds(peer.meet)
    wait_until(
        lambda: resident(server) - before < 10e6, lambda: f"memory: {(resident(server) - before) / 1e6:.1f} MB more"
    )
    return (
        f"{count} requests of {size} bytes take {each:.0f} bytes each; {(resident(server) - before) / 1e6:.1f} MB "
        f"stay after the rebuild, served again {took:.0f} ms after it began"
    )


@fault("12000-connections")
def many_connections(trial):
    server = trial.server().started()
    trial.peer()
    before = resident(server)
    process = subprocess.Popen(
        [UGS, "fleet", "--key", KEY, "--instances", "12000", "--rate", "80", "--duration", "150", "--json"],
        stdout=subprocess.PIPE,
        text=True,
    )
    trial.callback(process.wait)
    most = 0
    while process.poll() is None:
        most = max(most, resident(server))
        time.sleep(1)
    outcome = process.stdout.read()
    require(process.returncode == 0 and '"unanswered":0' in outcome, outcome)
    each = (most - before) / 12000
    require(each <= 33_000 + 1_000, f"{each:.0f} bytes a connection and its record")
    return f"all answered, {each / 1000:.1f} kB for a connection and its record"


def main(names):
    if names == ["--list"]:
        print("\n".join(FAULTS))
        return 0
    failed = 0
    for name in names or FAULTS:
        start = time.monotonic()
        try:
            with Trial() as trial:
                verdict = "PASS", FAULTS[name](trial)
        except Exception as error:  # pylint: disable=broad-except
            failed += 1
            verdict = "FAIL", f"{type(error).__name__}: {str(error)[-1500:]}"
        print(f"{verdict[0]} {name}: {verdict[1]} ({time.monotonic() - start:.0f} s)", flush=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
