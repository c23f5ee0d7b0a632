"""A fleet and a few hostile peers for as long as one likes: `./dev soak MINUTES`.

40 instances send 51 reports a second in an open loop. Every report's right answer is known, and each peer's answers
must come in the order of its reports: none twice, none at another peer, and none missing unless the server was
rebuilt meanwhile (its clock is moved on by half an hour every ten minutes). Every fiftieth request is hostile.
"""

import base64
import collections
import json
import os
import random
import sys
import time

from faults import HALF_HOUR, Trial, connect, rebuild, resident
from support import Peer, document, envelope, seal, wait_until, wrap

RATE, LEAST_RATE, PEERS = 51, 50, 40  # per second, and instances
REBUILD_EVERY = 600  # seconds


def hostile(number):
    """A request that must be answered "2"."""
    key, iv = b"k" * 16, b"i" * 16
    kinds = [
        lambda: b"not base64 !",
        lambda: base64.b64encode(b"[" * 100_000 + b"}"),
        lambda: base64.b64encode(b'{"a":0.00000000000000001e-2147483639}'),
        lambda: envelope(b"w" * 256, iv, b"c" * 64),
        lambda: envelope(wrap(b"five5"), iv, b"c" * 64),
        lambda: envelope(wrap(key), b"", b"c" * 17),
        lambda: seal(b"[" * 50_000),
        lambda: seal(json.dumps({"v6": {"KorvaneID": "x"}}).encode()),
    ]
    return kinds[number % len(kinds)]()


def requests():
    """Endless pairs of a request and its right answer."""
    number = 0
    while True:
        number += 1
        if number % 50 == 0:
            yield hostile(number // 50), b"2"
        elif random.random() < 0.2:
            yield seal(b"{hello}"), b"1"
        else:
            yield seal(document(f"instance {number % PEERS}", MaxCameras=number % 7)), b"0"


class Instance:
    """One peer, and the answers it is still owed: the time they were asked for and what they must be."""

    def __init__(self, trial):
        self.peer = Peer(trial).meet()
        self.owed = collections.deque()

    def ask(self, request, answer):
        self.peer.socket.send(request)
        self.owed.append((time.monotonic(), answer))

    def collect(self, rebuilt):
        """Takes what has come. Returns the latencies and how many answers a rebuild has taken."""
        latencies, lost = [], 0
        while self.peer.socket.poll(0):
            answer, now = self.peer.socket.recv(), time.monotonic()
            while self.owed and self.owed[0][1] != answer and self.owed[0][0] <= rebuilt:
                self.owed.popleft()
                lost += 1
            if not self.owed or self.owed[0][1] != answer:
                raise AssertionError(f"{answer} is nobody's answer; owed: {list(self.owed)[:3]}")
            latencies.append(now - self.owed.popleft()[0])
        return latencies, lost


def counts(server):
    return [len(os.listdir(f"/proc/{server.process.pid}/{kind}")) for kind in ("fd", "task")]


def soak(trial, minutes):
    server = trial.server(clock=True).started()
    instances = [Instance(trial) for _ in range(PEERS)]
    memory, latencies, lost, sent, rebuilds, rebuilt = [], [], 0, 0, 0, 0.0
    before = counts(server)
    start = time.monotonic()
    stream = requests()
    while (elapsed := time.monotonic() - start) < minutes * 60:
        if elapsed * RATE > sent:
            instances[sent % PEERS].ask(*next(stream))
            sent += 1
            if sent % 500 == 0:
                connect(random.randbytes(200)).close()
                connect(frames=b"\0\10nobody's").close()
        else:
            time.sleep(0.002)
        if elapsed > REBUILD_EVERY * (rebuilds + 1) and elapsed < minutes * 60 - 30:
            rebuilds += 1
            rebuild(server, HALF_HOUR * rebuilds)
            with Trial() as probing:
                probing.peer()
            rebuilt = time.monotonic()
        instance = instances[random.randrange(PEERS)]
        new, gone = instance.collect(rebuilt)
        latencies += new
        lost += gone
        if len(memory) < elapsed / 10:
            memory.append(resident(server))
            if len(memory) % 30 == 0:
                print(
                    f"{elapsed / 60:.0f} min: {sent} sent, {lost} lost to {rebuilds} rebuilds, "
                    f"{memory[-1] / 1e6:.2f} MB",
                    flush=True,
                )
    for instance in instances:
        wait_until(
            lambda: instance.collect(rebuilt) and sum(owed[0] > rebuilt for owed in instance.owed) == 0,
            "the last answers",
        )
    return report(sent, time.monotonic() - start, latencies, lost, rebuilds, memory, before, counts(server))


def report(sent, seconds, latencies, lost, rebuilds, memory, before, after):
    latencies.sort()
    # A cycle from rebuild to rebuild is a sawtooth, so whole cycles are compared: the last with the second, by which
    # every buffer has had its largest filling.
    cycle = REBUILD_EVERY // 10
    drift = sum(memory[-cycle:]) / cycle - sum(memory[cycle : 2 * cycle]) / cycle if len(memory) >= 3 * cycle else 0
    print(
        f"{sent} requests in {seconds:.0f} s, {sent / seconds:.1f}/s; {lost} without an answer at {rebuilds} rebuilds"
    )
    print(
        f"latency p50 {latencies[len(latencies) // 2] * 1000:.1f} ms, p99 {latencies[len(latencies) * 99 // 100] * 1000:.1f} ms"
    )
    print(
        f"memory {memory[0] / 1e6:.2f} -> {memory[-1] / 1e6:.2f} MB, drift from the second cycle to the last {drift / 1e3:.0f} kB"
    )
    print(f"descriptors {before[0]} -> {after[0]}, threads {before[1]} -> {after[1]}")
    failures = []
    if sent / seconds < LEAST_RATE:
        failures.append(f"void: under {LEAST_RATE} requests a second")
    if after[1] != before[1] or after[0] > before[0] + 2:
        failures.append("descriptors or threads have grown")
    if drift > 1e6:
        failures.append("memory grows")
    print("FAIL " + "; ".join(failures) if failures else "PASS")
    return 1 if failures else 0


if __name__ == "__main__":
    with Trial() as whole:
        sys.exit(soak(whole, float(sys.argv[1])))
