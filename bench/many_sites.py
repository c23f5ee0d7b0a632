#!/usr/bin/python3
"""What the metrics of many sites cost one VictoriaMetrics on this machine: CPU, memory, disk, and how fast it answers.

Writes the past hours first, for the bytes that a sample takes on disk, then the present, as agents would. Everything
stays on 127.0.0.1 and in a temporary directory. Needs Debian's package victoria-metrics.
"""

import argparse
import json
import os
import random
import shutil
import subprocess
import tempfile
import time
import urllib.parse
import urllib.request

ADDRESS = "127.0.0.1:18428"
INTERVAL = 15  # seconds between scrapes
GAUGES = "instances late_instances not_back_instances oldest_report_age_seconds up serving build_info".split()
GAUGES += ["reports_per_second_limit"]
COUNTERS = "reports greetings expired never_back rebuilds starts log_failures refused errors".split()
YEAR = 365.25 * 86400


def ask(path, body=None, **arguments):
    query = urllib.parse.urlencode(arguments, doseq=True)
    with urllib.request.urlopen(f"http://{ADDRESS}{path}?{query}", data=body, timeout=300) as answer:
        return answer.read().decode()


def series():
    """The metrics of a site, each with what it does: stand still, walk now and then, or count."""
    for number in range(19):
        yield "ugs_in_use_steady", {"feature": f"feature-{number}"}, "walk" if number % 2 else "rest"
    for name in GAUGES:
        yield f"ugs_{name}", {}, "age" if "age" in name else "rest"
    for name in COUNTERS:
        yield f"ugs_{name}_total", {}, "count" if name == "reports" else "rest"
    for name in ("last_report_timestamp_seconds", "start_time_seconds"):
        yield f"ugs_{name}", {}, "time" if "last" in name else "rest"
    for name in ("up", "scrape_duration_seconds"):
        yield name, {}, "noise" if "duration" in name else "rest"


def values(kind, number):
    """`number` values as a server of 30 instances would have them."""
    value, result = random.randrange(1000), []
    for step in range(number):
        if kind == "walk" and random.random() < 0.02:
            value += random.choice((-4, -1, 1, 4))
        elif kind == "count":
            value += random.randrange(13, 18)
        elif kind == "time":
            value = 1_800_000_000 + step * INTERVAL + random.randrange(3)
        elif kind == "age":
            value = random.randrange(20, 31)
        elif kind == "noise":
            value = round(random.uniform(0.002, 0.004), 9)
        result.append(value)
    return result


class Database:
    """A VictoriaMetrics of our own, in a directory that goes with it."""

    def __enter__(self):
        self.path = tempfile.mkdtemp(prefix="many-sites-")
        arguments = ["-httpListenAddr", ADDRESS, "-storageDataPath", self.path, "-retentionPeriod", "400d"]
        self.process = subprocess.Popen(["victoria-metrics", *arguments], stderr=subprocess.DEVNULL)
        for _ in range(600):
            try:
                ask("/health")
                return self
            except OSError:
                time.sleep(0.1)
        raise SystemExit("victoria-metrics does not answer")

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()
        shutil.rmtree(self.path)

    def cpu(self):
        with open(f"/proc/{self.process.pid}/stat", encoding="ascii") as file:
            fields = file.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def memory(self):
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as file:
            return next(int(line.split()[1]) for line in file if line.startswith("VmRSS")) / 1024

    def size(self):
        ask("/internal/force_flush")
        ask("/internal/force_merge")
        while 'vm_active_merges{type="storage/small"} 0' not in ask("/metrics"):
            time.sleep(1)
        files = (os.path.join(root, name) for root, _, names in os.walk(self.path) for name in names)
        return sum(os.stat(file).st_blocks * 512 for file in files)


def write_past(sites, hours):
    number = hours * 3600 // INTERVAL
    first = int(time.time()) // INTERVAL * INTERVAL - number * INTERVAL
    times = json.dumps([(first + step * INTERVAL) * 1000 for step in range(number)])
    variants = {kind: [json.dumps(values(kind, number)) for _ in range(8)] for _, _, kind in series()}
    for site in range(sites):
        lines = []
        for name, labels, kind in series():
            metric = json.dumps({"__name__": name, "site": f"site-{site}", "job": "ugs", **labels})
            lines.append(f'{{"metric":{metric},"values":{random.choice(variants[kind])},"timestamps":{times}}}')
        ask("/api/v1/import", "\n".join(lines).encode())


def write_present(sites, seconds):
    """Each site once an interval, evenly spread, as agents of many sites are."""
    end, turn = time.monotonic() + seconds, 0
    start = time.monotonic()
    while time.monotonic() < end:
        site = turn % sites
        lines = []
        for name, labels, kind in series():
            inside = ",".join(f'{key}="{value}"' for key, value in labels.items())
            lines.append(f"{name}{{{inside}}} {values(kind, 1)[0]}")
        labels = [f"site=site-{site}", "job=ugs"]
        ask("/api/v1/import/prometheus", "\n".join(lines).encode() + b"\n", extra_label=labels)
        turn += 1
        time.sleep(max(0, start + turn * INTERVAL / sites - time.monotonic()))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--sites", type=int, default=500)
    parser.add_argument("--hours", type=int, default=6, help="of the past")
    parser.add_argument("--seconds", type=int, default=120, help="of the present")
    options = parser.parse_args()
    per_site = len(list(series()))
    with Database() as database:
        empty = database.size()
        cpu = database.cpu()
        write_past(options.sites, options.hours)
        samples = options.sites * per_site * options.hours * 3600 // INTERVAL
        per_core = samples / (database.cpu() - cpu)
        per_sample = (database.size() - empty) / samples
        cpu = database.cpu()
        write_present(options.sites, options.seconds)
        share = (database.cpu() - cpu) / options.seconds
        print(f"{options.sites} sites of {per_site} series every {INTERVAL} s: {samples} samples of the past")
        print(f"past: {per_core:,.0f} samples a second of a core; {per_sample:.2f} bytes each, index included")
        print(f"a site and year: {per_sample * per_site * YEAR / INTERVAL / 1e6:.0f} MB")
        print(f"present: {100 * share:.1f} % of a core, {database.memory():.0f} MiB resident")
        for question in (
            "sum by (feature) (ugs_in_use_steady)",
            "count(time() - max by (site) (tlast_over_time(ugs_up[1d])) > 300)",
            'max_over_time(sum(ugs_in_use_steady{feature="feature-1"})[6h:5m])',
        ):
            start = time.monotonic()
            ask("/api/v1/query", query=question)
            print(f"{time.monotonic() - start:6.2f} s  {question}")


if __name__ == "__main__":
    main()
