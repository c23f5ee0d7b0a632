"""The metrics of `ugs page`, as Prometheus takes them, over a status socket that says what a test wants."""

from page_test import ask, page  # noqa: F401, the fixture
from status_test import END, HOSTILE, NOW, SERVER, instance, lines
from support import wait_until


def samples(path="/metrics", **headers):
    return {line for line in ask(path, **headers)[1].split("\n") if line and not line.startswith("#")}


def test_sums_are_right_and_every_known_code_starts_at_zero(serve, page):
    refusal = {"type": "refusal", "code": "0xE248", "last": NOW}
    rows = [
        {"type": "totals", "counts": {"Plates": 5}, "instances": 2},
        instance("a", counts={"Plates": 5, "PX": 2**32 - 1}),
        instance("b", counts={"Plates": 7}, state="not_back", last=NOW - 10),
        instance("c", state="late", last=NOW - 90),
        refusal | {"address": "1", "count": 2},
        refusal | {"address": "2", "count": 3},
    ]
    server = {"reports": 2**40, "rebuilds": 3, "last_report": NOW - 7, "expired": 4, "never_back": 1, "signed_off": 2}
    page(serve(lines(SERVER | server | {"errors": {"0x0081": 1, "0x442": 2}}, *rows, END)))
    wait_until(lambda: "ugs_up 1" in samples())
    shown = samples()
    assert {
        f"ugs_reports_total {2**40}",
        "ugs_rebuilds_total 3",
        "ugs_starts_total 1",
        f"ugs_start_time_seconds {NOW - 9000}",
        f"ugs_last_report_timestamp_seconds {NOW - 7}",
        "ugs_expired_total 4",
        "ugs_never_back_total 1",
        "ugs_lost_total 3",
        'ugs_build_info{version="1"} 1',
        'ugs_refused_total{code="0xE248"} 5',
        'ugs_refused_total{code="none"} 0',
        'ugs_errors_total{code="0x442"} 2',
        'ugs_errors_total{code="0x0081"} 1',
        'ugs_errors_total{code="0x00AE06"} 0',
        'ugs_in_use{feature="Plates"} 5',
        'ugs_in_use{feature="FaceTier2"} 0',
        'ugs_in_use_steady{feature="Plates"} 12',
        'ugs_in_use_steady{feature="PX"} 0',
        "ugs_instances 3",
        "ugs_late_instances 1",
        "ugs_not_back_instances 1",
        "ugs_oldest_report_age_seconds 90",
    } <= shown
    assert not any("identity=" in sample for sample in shown)


def test_both_forms_have_the_same_samples(serve, page):
    page(serve(lines(SERVER, instance("a", counts={"PX": 1}), END)))
    wait_until(lambda: "ugs_up 1" in samples())
    old, new = (ask("/metrics", Accept=kind)[1] for kind in ("*/*", "application/openmetrics-text;version=1.0.0,*/*"))
    assert samples() == samples(Accept="application/openmetrics-text")
    assert "# TYPE ugs_reports_total counter\n" in old and "EOF" not in old
    assert "# TYPE ugs_reports counter\n" in new and "# UNIT ugs_start_time_seconds seconds\n" in new
    assert new.endswith("\n# EOF\n")


def test_the_silent_are_named_and_bounded(serve, page):
    late = [instance(f"late-{number}", state="late", last=NOW - 100 - number) for number in range(60)]
    states = [
        instance("back-soon", state="not_back", last=NOW - 50),
        instance("missing", state="not_back", last=NOW - 80),
        instance("alive"),
        {"type": "loss", "key": "gone", "identity": HOSTILE, "last": NOW - 90, "lost": NOW - 20},
        {"type": "loss", "key": "returned", "identity": "r", "last": NOW - 90, "lost": NOW - 20, "returned": NOW - 5},
        {"type": "loss", "key": "alive", "identity": "again", "last": NOW - 90, "lost": NOW - 20},
        {"type": "loss", "key": "off", "identity": "o", "last": NOW - 90, "lost": NOW - 20, "reason": "signed_off"},
        {"type": "loss", "key": "old", "identity": "old", "last": NOW - 4000, "lost": NOW - 3700},
    ]
    page(serve(lines(SERVER, *late, *states, END)))
    wait_until(lambda: "ugs_up 1" in samples())
    named = [sample for sample in samples("/metrics?instances=silent") if "identity=" in sample]
    assert len(named) == 50 and all(sample.startswith("ugs_silent_instance_age_seconds") for sample in named)
    assert any('key="missing"' in sample and 'state="not_back"} 80' in sample for sample in named)
    (gone,) = (sample for sample in named if 'key="gone"' in sample)
    assert r',identity="a\"b' in gone and gone.endswith('state="lost"} 90') and "\x1b" not in gone
    assert {
        key for key in ("back-soon", "alive", "returned", "off", "old", "late-59") if f'key="{key}"' in str(named)
    } == set()
    assert any('key="late-47"' in sample for sample in named)
    every = [sample for sample in samples("/metrics?instances=1") if sample.startswith("ugs_instance_")]
    assert len(every) == 2 * 63
