"""`ugs page` as browsers and Prometheus ask it, over a status socket that says what a test wants."""

import http.client
import io
import json
import re
import signal
import socket
import subprocess

import make
import pytest
import report
from status_test import END, HOSTILE, NOW, SERVER, instance, lines, run, steers_a_terminal
from support import KEY, ROOT, SANITIZER, TIMEOUT, UGS, wait_until

PORT = 9305
HEADERS = {
    "Content-Security-Policy": "default-src 'self'",
    "X-Content-Type-Options": "nosniff",
    "Cache-Control": "no-store",
    "Referrer-Policy": "no-referrer",
}


@pytest.fixture
def page(network):
    """Starts a page for the status socket at `path`."""
    started = []

    def page(path):
        started.append(subprocess.Popen([UGS, "page", "--socket", path], stdout=subprocess.PIPE, text=True))
        assert started[0].stdout.readline() == f"The page: http://127.0.0.1:{PORT}/ (Ctrl-C ends it)\n"

    yield page
    for process in started:
        process.send_signal(signal.SIGTERM)
        assert process.wait(TIMEOUT) == 0


def ask(path, method="GET", host=f"127.0.0.1:{PORT}", **headers):
    connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=TIMEOUT)
    connection.request(method, path, headers={"Host": host, **headers})
    answer = connection.getresponse()
    assert {name: answer.getheader(name) for name in HEADERS} == HEADERS
    return answer.status, answer.read().decode()


def test_only_reading_and_only_under_its_own_name(tmp_path, page):
    page(tmp_path / "nothing")
    for host in ("localhost", "LOCALHOST:9305", "127.0.0.1", "[::1]:9305"):
        assert ask("/", host=host)[0] == 200
    for host in ("example.com", "127.0.0.1.example.com", "localhost:80", "", "127.0.0.1:9305:9305"):
        assert {ask(path, host=host)[0] for path in ("/", "/status", "/metrics")} == {403}
    assert [ask("/status", method)[0] for method in ("POST", "PUT", "DELETE", "OPTIONS")] == [405] * 4
    assert ask("/page.js", "HEAD") == (200, "")
    assert ask("/../etc/passwd")[0] == 404


def test_without_a_server_the_page_says_so(tmp_path, page):
    page(tmp_path / "nothing")
    assert "<noscript>" in ask("/")[1] and "EventSource" in ask("/page-stream.js")[1]
    wait_until(lambda: "no server shows its status" in ask("/status")[1])
    assert ask("/instances")[0] == 503
    text = ask("/metrics")[1].splitlines()
    assert [line for line in text if not line.startswith("# ")] == ["ugs_up 0"]


def test_figures_are_the_servers_whatever_peers_send(serve, page):
    hostile = {"container": HOSTILE, "cameras": [HOSTILE], "address": HOSTILE, "last": NOW - 90, "state": "late"}
    rows = [
        {"type": "totals", "counts": {"Plates": 5}, "instances": 2},
        instance("a", counts={"Plates": 5}),
        instance('x"y\\z\n' + HOSTILE[:9], **hostile),
        {"type": "refusal", "address": "1", "code": "0xE248", "count": 2, "last": NOW},
        {"type": "refusal", "address": "2", "code": "0xE248", "count": 3, "last": NOW, "identity": HOSTILE},
        {"type": "loss", "identity": HOSTILE, "lost": NOW, "counts": {"PX": 1}},
        {"type": "hour", "hour": NOW, "seen": 60, "features": {"Plates": [7, NOW, 2**40], "PX": "?"}},
    ]
    page(serve(lines(SERVER | {"reports": 2**40}, *rows, END)))
    wait_until(lambda: ask("/status")[0] == 200)
    status = json.loads(ask("/status")[1])
    assert status["server"]["reports_per_second"] == 0.5 and status["totals"] == {
        "counts": {"Plates": 5},
        "instances": 2,
    }
    assert status["instances"][1]["container"] == HOSTILE and status["losses"][0]["counts"] == {"PX": 1}
    assert status["refusals"][1] | rows[4] == status["refusals"][1] | {"type": "refusal"}
    assert status["hours"] == [{"hour": NOW, "seen": 60, "features": {"Plates": [7, NOW, 2**40]}}]
    assert json.loads(ask("/instances")[1]) == {"time": NOW, "instances": status["instances"]}


def test_bytes_that_the_server_stored_steer_nothing(start, peer, tmp_path, page, open_terminal):
    """Those of an instance that is no UTF-8, with what steers a terminal in it."""
    path, evil = tmp_path / "status", "\x1b[2J\x9b\x7f\u202eRAW"
    start(env={"UGS_STATUS": str(path)})
    peer.meet()
    root = json.loads(make.report("i" + evil, DockerID="c" + evil, Plates=2))
    next(member for member in (root, *root.values()) if "CamRtspUrls" in member)["CamRtspUrls"] = [
        "u" + evil,
        "rtsp://u:secret@h/1",
    ]
    assert peer.ask(report.seal(json.dumps(root).encode().replace(b"RAW", b"\xff\x9b\xc3"), KEY)) == b"0"
    shown = evil.replace("RAW", 3 * "\ufffd")
    forms = ("status",), ("top",), ("instances",), ("instances", "--csv"), ("instances", "--json")
    outputs = [run(*form, path=path).stdout for form in forms]
    (told,) = json.loads(outputs[-1])["instances"]
    assert (told["identity"], told["container"], told["cameras"]) == (
        "i" + shown,
        "c" + shown,
        ["u" + shown, "rtsp://***@h/1"],
    )
    page(path)
    wait_until(lambda: ask("/status")[0] == 200)
    asked = "/status", "/instances", "/plain", "/metrics?instances=1"
    outputs += [ask(name)[1].encode() for name in asked]
    stream = follow()
    outputs.append(b"".join(iter(stream.readline, b"event: change\n")))
    terminal = open_terminal(f"TERM=xterm exec {UGS} top --socket {path}")
    terminal.logfile_read = io.StringIO()
    terminal.expect_exact("i\ufffd[2J")
    terminal.send("\r\x1b[F")
    terminal.expect_exact("  u\ufffd[2J")
    terminal.send("q")
    terminal.expect_exact("\x1b[?1049l")
    outputs.append(re.sub(r"\x1b\[[?0-9;]*[A-Za-z]", "", terminal.logfile_read.getvalue()).encode())
    assert not any(steers_a_terminal(output) for output in outputs)
    assert all(b"[2J" in output for output in outputs[2:])
    assert not any(b"secret" in output for output in outputs)


def luminance(colour):
    """WCAG 2.1, relative luminance."""
    digits = colour[1:] if len(colour) == 7 else "".join(2 * digit for digit in colour[1:])
    parts = [int(digits[at : at + 2], 16) / 255 for at in (0, 2, 4)]
    parts = [part / 12.92 if part <= 0.04045 else ((part + 0.055) / 1.055) ** 2.4 for part in parts]
    return sum(weight * part for weight, part in zip((0.2126, 0.7152, 0.0722), parts))


def test_text_and_lines_stand_out_in_light_and_dark():
    themes = re.findall(r":root \{(.*?)\}", (ROOT / "tools/page.css").read_text(), re.DOTALL)
    assert len(themes) == 2
    for theme in themes:
        colour = {name: luminance(value) for name, value in re.findall(r"--([a-z-]+): (#\w+);", theme)}

        def contrast(front, back):
            dark, light = sorted((colour[front], colour[back]))
            return (light + 0.05) / (dark + 0.05)

        for text in ("ink", "faint", "link", "good", "warn", "bad"):
            assert min(contrast(text, "paper"), contrast(text, "card")) >= 4.5, text
        for text in ("good", "warn", "bad"):
            assert contrast(text, text + "-paper") >= 4.5, text
        assert min(contrast("edge", "paper"), contrast("edge", "card"), contrast("line", "card")) >= 3


def test_clients_that_never_finish_their_request_hold_nobody_up(tmp_path, page):
    page(tmp_path / "nothing")
    half_open = [socket.create_connection(("127.0.0.1", PORT)) for _ in range(50)]
    for client in half_open:
        client.sendall(b"GET /status HTTP/1.1\r\nHost: local")
    assert ask("/")[0] == 200
    for client in half_open:
        client.settimeout(0)
        with client, pytest.raises(BlockingIOError):  # still open: the answer did not wait for their end
            client.recv(1)


def read_events(stream, number):
    """The next events, each a pair of its type and its data."""
    events = []
    while len(events) < number:
        lines = list(iter(stream.readline, b"\n"))
        fields = dict(line.decode().rstrip("\n").split(": ", 1) for line in lines)
        if "data" in fields:
            events.append((fields["event"], json.loads(fields["data"])))
    return events


def follow():
    connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=TIMEOUT)
    connection.request("GET", "/events")
    answer = connection.getresponse()
    assert (answer.status, answer.getheader("Content-Type")) == (200, "text/event-stream")
    return answer


def fleet(second, number=50):
    def row(n):
        return instance(f"i{n:05}", container="x" * 1000, camera_seconds=second, last=NOW + second * (n == 7))

    absent = 20 if second > 2 else 40
    return lines(SERVER | {"time": NOW + second}, *(row(n) for n in range(number) if n != absent), END)


def test_a_stream_brings_all_at_first_and_then_what_changed(serve, page):
    moments = iter(range(10**6))
    page(serve(lambda: fleet(next(moments))))
    wait_until(lambda: ask("/status")[0] == 200)
    events = read_events(follow(), 5)
    status, news = events[0][1], [data for _, data in events[1:]]
    assert [kind for kind, _ in events] == ["whole"] + ["change"] * 4
    shown = {row["key"]: row for row in status["instances"]}
    for data in news:
        for key in data["gone"]:
            del shown[key]
        changed = {row["key"]: row for row in data["changed"]}
        assert changed.keys() - shown.keys() <= {"i00040"} and changed.keys() & shown.keys() == {"i00007"}
        shown |= changed
        assert shown["i00007"]["last"] - NOW == shown["i00007"]["camera_seconds"] == data["server"]["time"] - NOW
    assert sorted(shown) == [f"i{n:05}" for n in range(50) if n != 20]
    assert not any("losses" in data for data in news)


@pytest.mark.skipif(SANITIZER != "", reason="a fleet that fills the connections' buffers takes minutes")
def test_readers_that_stop_reading_hold_nobody_up_and_are_dropped(serve, page):
    page(serve(fleet(0, 10_000)))
    wait_until(lambda: ask("/status", "HEAD")[0] == 200)
    other = follow()
    assert read_events(other, 1)[0][0] == "whole"
    stopped = []
    for _ in range(100):  # more than there may be streams
        stopped.append(socket.create_connection(("127.0.0.1", PORT)))
        stopped[-1].sendall(f"GET /events HTTP/1.1\r\nHost: localhost:{PORT}\r\n\r\n".encode())
    wait_until(lambda: ask("/events", "HEAD")[0] == 503)
    assert [kind for kind, _ in read_events(other, 3)] == ["change"] * 3
    wait_until(lambda: ask("/events", "HEAD")[0] == 200)


def test_the_plain_page_needs_no_script_and_escapes_what_peers_send(serve, page):
    evil = "<script>alert('1')</script>\"&"
    rows = [
        instance(evil, container=evil, address=evil, layout=evil, state=evil, flags=[evil], counts={evil: 1}),
        {"type": "loss", "identity": evil, "address": evil, "lost": NOW, "reason": evil, "counts": {evil: 1}},
        {"type": "refusal", "identity": evil, "address": evil, "code": evil, "last": NOW},
        {"type": "totals", "counts": {evil: 1}},
    ]
    page(serve(lines(SERVER | {"host": evil, "version": evil}, *rows, END)))
    wait_until(lambda: ask("/status")[0] == 200)
    text = ask("/plain")[1]
    assert "<script" not in text and text.count("&lt;script&gt;alert(&#39;1&#39;)&lt;/script&gt;&quot;&amp;") > 12
    assert "plain" in ask("/")[1]
