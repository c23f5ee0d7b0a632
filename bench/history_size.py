"""How large the history of a fleet gets: history_size.py BUILD_DIR [--instances 1000] [--years 5]

Lets `ugs page` make the file, and fills it as the page would: every instance there on each day, every count used in
each hour. Prints its size, and how long `ugs history` takes to read a month of it."""

import argparse
import random
import signal
import sqlite3
import subprocess
import tempfile
import time
from pathlib import Path

HOUR, DAY, BEGIN = 3600, 86400, 1_767_225_600  # 2026-01-01
FEATURES = 21


def make_file(ugs, file):
    arguments = [ugs, "page", "--port", "19305", "--socket", "/nonexistent", "--history", file]
    with subprocess.Popen(arguments, stdout=subprocess.PIPE) as page:
        page.stdout.readline()
        page.send_signal(signal.SIGTERM)
        assert page.wait() == 0


def fill(database, instances, days):
    number = random.Random(1).randrange
    database.executemany("INSERT INTO feature (name) VALUES (?)", ((f"count{i}",) for i in range(FEATURES)))
    database.executemany(
        "INSERT INTO instance (key, identity, container, address, added) VALUES (?, ?, ?, ?, ?)",
        ((f"{i:016x}", f"instance-{i}", f"{number(2**256):064x}", "10.0.0.1", BEGIN) for i in range(instances)),
    )
    for day in range(BEGIN, BEGIN + days * DAY, DAY):
        run = day // (30 * DAY)  # a restart each month
        database.execute("INSERT OR IGNORE INTO run VALUES (?, ?, ?)", (run, day, day))
        for hour in range(day, day + DAY, HOUR):
            database.execute("INSERT INTO hour VALUES (?, ?, ?)", (hour, run, HOUR))
            database.executemany(
                "INSERT INTO feature_hour VALUES (?, ?, ?, ?, ?, ?)",
                ((hour, i, run, number(10**4), hour + number(HOUR), number(10**7)) for i in range(1, FEATURES + 1)),
            )
        database.executemany(
            "INSERT INTO instance_day VALUES (?, ?, ?, ?, ?)",
            ((day, i, number(10**6), day, day + DAY - 1) for i in range(1, instances + 1)),
        )
    for hour in range(day, day + 3 * DAY, HOUR):  # those that are kept by hour
        database.executemany(
            "INSERT INTO instance_hour VALUES (?, ?, ?, ?, ?, ?)",
            ((hour, i, BEGIN, number(10**5), hour, hour + HOUR - 1) for i in range(1, instances + 1)),
        )


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build")
    parser.add_argument("--instances", type=int, default=1000)
    parser.add_argument("--years", type=float, default=5)
    options = parser.parse_args()
    ugs, days = Path(options.build) / "ugs", int(options.years * 365)
    with tempfile.TemporaryDirectory() as directory:
        file = Path(directory) / "history.db"
        make_file(ugs, file)
        with sqlite3.connect(file) as database:
            fill(database, options.instances, days)
        print(f"{options.instances} instances, {days} days: {file.stat().st_size / 1e6:.1f} MB")
        for what in ("--csv", "--instances"):
            began = time.monotonic()
            command = [ugs, "history", "--file", file, "--month", "2026-01", what]
            subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
            print(f"ugs history --month 2026-01 {what}: {1000 * (time.monotonic() - began):.0f} ms")


main()
