"""What was used in a month, from servers that say through their status socket what a test wants."""

import csv
import datetime
import functools
import http.client
import io
import json
import os
import re
import resource
import signal
import sqlite3
import subprocess

import pytest
from status_test import END, HOSTILE, NOW, SERVER, instance, lines, steers_a_terminal
from support import SANITIZER, TIMEOUT, UGS, sealed_report, wait_until

HOUR, DAY = 3600, 86400


def utc(text):
    return int(datetime.datetime.fromisoformat(text + "+00:00").timestamp())


# The server was down for 10 minutes within an hour, and there is a month's end; in New York the clocks go back at 6:00.
RUNS = [
    (utc("2026-10-31 20:10"), utc("2026-11-01 03:20")),
    (utc("2026-11-01 03:30"), utc("2026-11-02 03:00")),
    (utc("2026-11-09 01:00"), utc("2026-11-09 02:00")),
]
# run, key, cameras, Plates, from, until: seconds after the start of the run
SPELLS = [
    (0, "a", 2, 3, 600, 2400),
    (0, "a", 2, 3, 9000, None),
    (0, "b", 1, 10, 0, 13_800),  # until the month's end
    (1, "a", 2, 3, 1800, None),
    (1, "c", 5, 7, 3600, 7200),
]


def overlap(begin, end, other_begin, other_end):
    return max(min(end, other_end) - max(begin, other_begin), 0)


def told(run, at):
    """What the server of that run tells at that time."""
    start = RUNS[run][0]
    server = SERVER | {"started": start, "time": at}
    rows, ours = [], []
    for number, key, cameras, plates, begin, end in SPELLS:
        begin, until = start + begin, min(at, start + (end or 2 * DAY))
        if number != run or begin >= at:
            continue
        ours.append((begin, until, plates))
        row = instance(key, cameras_count=cameras, camera_seconds=cameras * (until - begin), first=begin, last=until)
        if until < at or end and start + end == at:
            row |= {"type": "loss", "last": until - 121, "lost": until, "reason": "silent", "returned": 0}
        rows.append(row)
    for hour in range(at - at % HOUR, start - HOUR, -HOUR):
        changes = sorted({max(hour, start)} | {begin for begin, _, _ in ours if hour <= begin < hour + HOUR})
        in_use = {now: sum(plates for begin, end, plates in ours if begin <= now < end) for now in changes}
        peak = max(in_use.values())
        since = next(now for now in changes if in_use[now] == peak)
        seconds = sum(plates * overlap(hour, hour + HOUR, begin, end) for begin, end, plates in ours)
        uses = {"Plates": [peak, since, seconds]} if peak else {}
        rows.append({"type": "hour", "hour": hour, "seen": overlap(hour, hour + HOUR, start, at), "features": uses})
    return lines(server, *rows, END)


@pytest.fixture
def file(tmp_path):
    return tmp_path / "history.db"


@pytest.fixture
def tell(serve):
    """Starts a server that tells this, and from then on what it is called with."""
    newest = []

    def tell(text):
        newest.append(text)
        return newest[1:] or serve(lambda: newest[-1])

    return tell


@pytest.fixture
def keep(network, file, tmp_path):
    """Starts a page that keeps a history of the server at the status socket."""
    pages = []

    def keep(**options):
        arguments = [UGS, "page", "--socket", tmp_path / "status", "--history", file]
        with open(tmp_path / "complaints", "ab") as complaints:
            pages.append(subprocess.Popen(arguments, stdout=subprocess.PIPE, stderr=complaints, **options))
        assert pages[-1].stdout.readline()
        return pages[-1]

    yield keep
    for page in pages:
        page.kill()
        page.wait()


def end(page):
    page.send_signal(signal.SIGTERM)
    assert page.wait(TIMEOUT) == 0


def ask(path):
    connection = http.client.HTTPConnection("127.0.0.1", 9305, timeout=TIMEOUT)
    connection.request("GET", path)
    answer = connection.getresponse()
    return answer.status, answer.read().decode()


def history(file, *arguments, **environment):
    command = [UGS, "history", "--file", file, *arguments]
    result = subprocess.run(command, capture_output=True, check=False, env=os.environ | environment)
    return result.returncode, result.stdout.decode(), result.stderr.decode()


def asked(file, *arguments, **environment):
    code, output, errors = history(file, *arguments, "--json", **environment)
    assert (code, errors) == (0, "")
    return json.loads(output)


def written(file):
    try:
        with sqlite3.connect(file) as database:
            return database.execute("SELECT max(written) FROM run").fetchone()[0]
    except sqlite3.OperationalError:
        return None  # there are no tables yet


def see(tell, keep, run, at):
    """The page looks at the server once, and ends."""
    tell(told(run, at))
    page = keep()
    wait_until(lambda: ask("/status")[0] == 200 and json.loads(ask("/status")[1])["server"]["time"] == at)
    end(page)


# A page that was away for a day, one that looked often, and one that came too late for what it had seen before.
LOOKS = {
    "once": [(0, RUNS[0][1]), (1, RUNS[1][1])],
    "often": [(0, RUNS[0][0] + 1200), (0, RUNS[0][0] + 9999), (0, RUNS[0][1]), (1, RUNS[1][0] + 7000), (1, RUNS[1][1])],
    "again": [(0, RUNS[0][1]), (1, RUNS[1][1]), (1, RUNS[1][0] + 7000), (0, RUNS[0][0] + 9999)],
}


@pytest.mark.parametrize("zone, looks", [("UTC", "once"), ("America/New_York", "often"), ("Asia/Tokyo", "again")])
def test_the_figures_are_exact_whenever_the_page_looked(tell, keep, file, monkeypatch, zone, looks):
    monkeypatch.setenv("TZ", zone)
    for look in [*LOOKS[looks], (2, RUNS[2][1])]:
        see(tell, keep, *look)
    october, november = (asked(file, "--month", month) for month in ("2026-10", "2026-11"))
    # The day's 24 hours, of which 3:50 were seen: b used 10 all of the time, a 3 for 1800 s and 4800 s.
    day = october["days"][-1]
    assert day["day"] == "2026-10-31" and abs(day["seen"] * 24 - 23 / 6) < 1e-9
    assert day["camera_hours"] == (13_800 + 2 * 1800 + 2 * 4800) / HOUR
    plates = {"peak": 13, "peak_time": RUNS[0][0] + 600, "unit_hours": (138_000 + 3 * 6600) / HOUR}
    assert day["features"] == october["features"] == {"Plates": plates}
    assert len(october["days"]) == 31 and sum(each["seen"] for each in october["days"][:-1]) == 0
    # The 10 minutes are missing, and what was in use before them is not counted through them.
    first, second = november["days"][:2]
    assert first["seen"] == 1 - 600 / DAY
    assert first["camera_hours"] == (2 * 12_000 + 2 * (DAY - 12_600 - 1800) + 5 * 3600) / HOUR
    seconds = 3 * 12_000 + 3 * (DAY - 12_600 - 1800) + 7 * 3600
    plates = {"peak": 10, "peak_time": RUNS[1][0] + 3600, "unit_hours": seconds / HOUR}
    assert first["features"] == {"Plates": plates}
    assert second["features"]["Plates"] == {"peak": 3, "peak_time": utc("2026-11-02 00:00"), "unit_hours": 9}
    rows = asked(file, "--month", "2026-11", "--instances")["instances"]
    assert [(row["identity"], row["camera_hours"], row["days"]) for row in rows] == [
        ("a", first["camera_hours"] - 5 + 6, 2),
        ("c", 5, 1),
    ]
    assert (rows[1]["first"], rows[1]["last"]) == (RUNS[1][0] + 3600, RUNS[1][0] + 7200 - 121)
    losses = [(loss["identity"], loss["lost"]) for loss in asked(file, "--month", "2026-10", "--losses")["losses"]]
    assert losses == [("a", RUNS[0][0] + 2400)]
    with sqlite3.connect(file) as database:  # what is older than two days is kept by day
        assert not database.execute("SELECT * FROM instance_hour").fetchall()


def test_what_reports_say_is_in_the_history(start, peer, keep, file, tmp_path):
    start(env={"UGS_STATUS": str(tmp_path / "status")})
    peer.meet()
    for identity, plates in (("a", 2), ("b", 3), ("a", 1)):
        assert peer.ask(sealed_report(identity, Plates=plates)) == b"0"
    page = keep()
    wait_until(lambda: ask("/status")[0] == 200)

    def told_of_use():  # an instance of no camera-seconds is not written
        status = json.loads(ask("/status")[1])
        return all(row["camera_seconds"] for row in status["instances"]) and status["server"]

    state = wait_until(told_of_use)
    end(page)
    figures = asked(file)["features"]["Plates"]
    assert figures["peak"] == 5 and state["started"] <= figures["peak_time"] <= state["time"]
    assert {row["identity"] for row in asked(file, "--instances")["instances"]} == {"a", "b"}


def test_the_same_for_spreadsheets_and_browsers(tell, keep, file):
    tell(told(1, RUNS[1][1]))
    keep()
    wait_until(lambda: "Plates" in ask("/history?month=2026-11")[1])
    # While it is this month, the share of it that has been seen becomes less with each second.
    without_share = functools.partial(re.sub, r'("seen":[^,}]*|0\.\d{6}$)', "")
    month = ["--month", "2026-11"]
    status, text = ask("/history?month=2026-11")
    assert status == 200 and json.loads(text)["month"] == "2026-11"
    assert without_share(text) == without_share(history(file, *month, "--json")[1])
    status, text = ask("/history.csv?month=2026-11")
    lines = [text.splitlines(), history(file, *month, "--csv")[1].splitlines()]
    assert status == 200 and [without_share(line) for line in lines[0]] == [without_share(line) for line in lines[1]]
    rows = list(csv.DictReader(io.StringIO(text, newline="")))
    assert rows[1] == {
        "day": "2026-11-01",
        "feature": "Plates",
        "peak": "10",
        "peak_time": "2026-11-01T04:30:00Z",
        "unit_hours": "67.0000",
        "seen": "0.854166",
    }
    hours = json.loads(ask("/day?key=a")[1])
    assert hours["key"] == "a" and len(hours["hours"]) == 24
    assert hours["hours"][-2] == {"hour": RUNS[1][1] - HOUR, "camera_seconds": 7200}
    assert (ask("/day?key=%22%00")[0], json.loads(ask("/day?key=%22%00")[1])["hours"]) == (200, [])
    for path in ("/history?month=2026-13", "/history.csv?month=", "/history?month=2026-11-01", "/day"):
        assert ask(path)[0] == 400 and json.loads(ask(path)[1])["error"]


@pytest.fixture
def clock(tmp_path):
    """Sets a page's clocks on by so many seconds."""
    setting = tmp_path / "clock"

    def clock(seconds):
        setting.with_suffix(".new").write_text(f"+{seconds}", "ascii")
        setting.with_suffix(".new").rename(setting)

    clock(0)
    clock.env = {"LD_PRELOAD": "/usr/$LIB/faketime/libfaketimeMT.so.1", "FAKETIME_NO_CACHE": "1"}
    clock.env |= {"FAKETIME_TIMESTAMP_FILE": str(setting), "DONT_FAKE_MONOTONIC": "0"} | os.environ
    return clock


@pytest.mark.skipif(bool(SANITIZER), reason="the sanitizer and the library for the clock do not mix")
def test_a_minute_is_the_most_that_is_lost(tell, keep, file, clock):
    start = RUNS[1][0]
    tell(told(1, start + 4000))
    page = keep(env=clock.env)
    wait_until(lambda: written(file) == start + 4000)  # the first at once
    tell(told(1, start + 4060))
    wait_until(lambda: f'"time":{start + 4060}' in ask("/status")[1])
    clock(61)
    wait_until(lambda: written(file) == start + 4060)
    tell(told(0, RUNS[0][1]))  # the last of a run that is over, too
    wait_until(lambda: f'"time":{RUNS[0][1]}' in ask("/status")[1])
    tell(told(1, start + 4100))
    wait_until(lambda: asked(file, "--month", "2026-10")["features"])
    page.kill()
    page.wait()
    see(tell, keep, 1, start + 5000)
    assert asked(file, "--month", "2026-11", "--instances")["instances"][1]["camera_hours"] == 5 * 1400 / HOUR


def test_losses_between_two_writes_are_kept_though_the_server_tells_the_newest_only(serve, keep, file):
    start = RUNS[1][0]
    texts, looks = [], []
    serve(lambda: looks.append(len(texts)) or texts[-1])

    def show(second, times):
        seen = {"type": "hour", "hour": start - start % HOUR, "seen": second, "features": {}}
        spell = {"type": "loss", "first": start, "last": start, "lost": start + second, "camera_seconds": second}
        losses = [instance(f"{second}-{number}") | spell for number in range(3)]
        texts.append(lines(SERVER | {"started": start, "time": start + second}, *losses, seen, END))
        wait_until(lambda: looks.count(len(texts)) > times)

    texts.append(lines(SERVER | {"started": start, "time": start + 100}, END))
    page = keep()
    wait_until(lambda: written(file) == start + 100)
    show(200, 4)  # so that it was seen on the way from the thread that asks to the one that writes
    show(300, 2)
    end(page)
    assert len(asked(file, "--month", "2026-11", "--losses")["losses"]) == 6
    assert asked(file, "--month", "2026-11")["camera_hours"] == 3 * (200 + 300) / HOUR


@pytest.mark.skipif(bool(SANITIZER), reason="the sanitizer and the library for the clock do not mix")
def test_a_full_disk_stops_nobody(tell, keep, file, clock, tmp_path):
    tell(told(1, RUNS[1][1]))
    limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (4096, resource.RLIM_INFINITY))
    page = keep(env=clock.env, preexec_fn=limit, restore_signals=False)  # SIGXFSZ stays ignored, as Python has it
    wait_until(lambda: ask("/status")[0] == 200)
    wait_until(lambda: b"tried again" in (tmp_path / "complaints").read_bytes())
    assert ask("/history")[0] == 503 and json.loads(ask("/history")[1])["error"]
    clock(61)
    resource.prlimit(page.pid, resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY,) * 2)
    clock(122)
    wait_until(lambda: "Plates" in ask("/history?month=2026-11")[1])
    end(page)
    assert (tmp_path / "complaints").read_bytes().count(b"\n") == 2  # it is not, and it is again


V1 = f"""
CREATE TABLE run (id INTEGER PRIMARY KEY, started INTEGER NOT NULL UNIQUE, written INTEGER NOT NULL);
CREATE TABLE feature (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE);
CREATE TABLE hour (hour INTEGER NOT NULL, run INTEGER NOT NULL, seen INTEGER NOT NULL,
                   PRIMARY KEY (hour, run)) WITHOUT ROWID;
CREATE TABLE feature_hour (hour INTEGER NOT NULL, feature INTEGER NOT NULL, run INTEGER NOT NULL,
                           peak INTEGER NOT NULL, peak_time INTEGER NOT NULL, unit_seconds INTEGER NOT NULL,
                           PRIMARY KEY (hour, feature, run)) WITHOUT ROWID;
CREATE TABLE loss (lost INTEGER NOT NULL, key TEXT NOT NULL, identity TEXT NOT NULL,
                   container TEXT NOT NULL, address TEXT NOT NULL, last INTEGER NOT NULL,
                   reason TEXT NOT NULL, returned INTEGER NOT NULL, PRIMARY KEY (lost, key)) WITHOUT ROWID;
INSERT INTO run VALUES (1, 1, 2); INSERT INTO feature VALUES (1, 'PX');
INSERT INTO hour VALUES ({utc("2026-09-01 00:00")}, 1, 1800);
INSERT INTO feature_hour VALUES ({utc("2026-09-01 00:00")}, 1, 1, 4, {utc("2026-09-01 00:10")}, 7200);
PRAGMA application_id = {0x75677368};
"""


@pytest.mark.parametrize(
    "tables, is_ours",
    [
        (V1 + "PRAGMA user_version = 1;", True),
        ("CREATE TABLE t (a);", False),
        (V1 + "PRAGMA user_version = 99;", False),
    ],
)
def test_an_older_history_is_brought_up_to_date_and_others_are_left_alone(tell, keep, file, tmp_path, tables, is_ours):
    with sqlite3.connect(file) as database:
        database.executescript(tables)
    before = file.read_bytes()
    assert history(file)[0] == 3 and file.read_bytes() == before
    see(tell, keep, 1, RUNS[1][1])
    assert (file.read_bytes() != before) == is_ours == (not (tmp_path / "complaints").read_bytes())
    if is_ours:
        uses = {"PX": {"peak": 4, "peak_time": utc("2026-09-01 00:10"), "unit_hours": 2}}
        assert asked(file, "--month", "2026-09")["features"] == uses
        assert asked(file, "--month", "2026-11", "--instances")["instances"][0]["days"] == 2
        assert history(file, "--forget-before", "2026-11")[0] == 0
        assert not asked(file, "--month", "2026-09")["features"] and asked(file, "--month", "2026-11")["features"]


def test_what_was_forgotten_is_not_kept_again(tell, keep, file):
    def losses():
        return [len(asked(file, "--month", month, "--losses")["losses"]) for month in ("2026-10", "2026-11")]

    see(tell, keep, 0, RUNS[0][1])
    assert losses() == [1, 1]
    assert history(file, "--forget-before", "2026-11")[0] == 0
    see(tell, keep, 0, RUNS[0][1])
    assert losses() == [0, 1]


def test_whatever_peers_send_steers_no_terminal(tell, keep, file):
    peer = {"first": NOW - 100, "camera_seconds": 100, "container": HOSTILE, "address": HOSTILE, "last": NOW - 9}
    loss = instance(HOSTILE + "2", **peer) | {"type": "loss", "lost": NOW - 1, "reason": HOSTILE}
    hour = {"type": "hour", "hour": NOW - NOW % HOUR, "seen": 400, "features": {HOSTILE: [1, NOW, 1]}}
    tell(lines(SERVER, instance(HOSTILE, **peer), loss, hour, END))
    keep()
    month = datetime.datetime.fromtimestamp(NOW, datetime.timezone.utc).strftime("%Y-%m")
    wait_until(lambda: "features" in ask(f"/history?month={month}")[1] and written(file))
    for what in ((), ("--instances",), ("--losses",)):
        for form in ((), ("--json",), ("--csv",)):
            code, output, errors = history(file, "--month", month, *what, *form)
            assert (code, errors) == (0, "") and output and not steers_a_terminal(output.encode())
    assert not steers_a_terminal(ask(f"/history.csv?month={month}")[1].encode())
    assert asked(file, "--month", month, "--instances")["instances"][0]["identity"] == HOSTILE


@pytest.mark.parametrize(
    "code, arguments",
    [
        (2, ("--month", "2026-00")),
        (2, ("--month", "26-1")),
        (2, ("--forget-before", "x")),
        (2, ("--csv", "--json")),
        (3, ()),
    ],
)
def test_what_cannot_be_shown_is_said(file, code, arguments):
    result = history(file, *arguments)
    assert result[:2] == (code, "") and result[2].count("\n") == 1 or code == 2
    assert not file.exists()
