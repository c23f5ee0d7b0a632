"""The simulator `ugs fleet`, and through it the server's sums."""

import json
import signal

from support import END_OF_STATUS, begin_fleet, fill_log, sealed_report

FEW = ("--instances", "2", "--period", "1", "--duration", "1")


def begin(server, *arguments):
    return begin_fleet(*arguments, "--log", server.directory / "logs/KorvaneUGS.log.txt")


def run(server, *arguments):
    fleet = begin(server, *arguments)
    output = fleet.communicate()[0]
    return fleet.returncode, output


def test_without_a_server_it_says_so():
    fleet = begin_fleet(*FEW, "--drain", "1")
    assert fleet.wait() == 3


def test_at_ctrl_c_the_outcome_so_far_is_printed(start, peer, tmp_path):
    server = start()
    peer.meet()
    (tmp_path / "csv").write_text("old")
    fleet = begin_fleet("--json", "--instances", "5", "--rate", "20", "--duration", "600", "--csv", tmp_path / "csv")
    server.wait_for("DETECT NEW REQUEST", times=2)
    assert (tmp_path / "csv").read_text() == "old"  # until there is something better
    fleet.send_signal(signal.SIGINT)
    outcome = json.loads(fleet.communicate()[0])
    assert 0 < outcome["reports"] < 600 and "log_agrees" not in outcome
    assert len((tmp_path / "csv").read_text().splitlines()) == outcome["reports"] + 1
    assert not (tmp_path / "csv.new").exists()


def test_a_difference_or_a_refusal_is_a_failure(start, peer):
    server = start()
    assert run(server, *FEW)[0] == 0
    assert peer.meet().ask(sealed_report("foreign", MaxCameras=1000)) == b"0"
    code, output = run(server, *FEW, "--layout", "v4")
    assert code == 1 and "SUMS DIFFER" in output and "MaxCameras: server 10" in output


def test_the_servers_sums_are_the_fleets_across_a_rotation_of_the_log(start, tmp_path):
    fill_log(tmp_path, room=100_000)
    crowd = ("--instances", "30", "--rate", "60", "--duration", "2", "--connections", "7")
    code, output = run(start(directory=tmp_path), *crowd, "--json", "--csv", tmp_path / "csv")
    outcome = json.loads(output)
    keys = ("reports", "answered", "unanswered", "deletions")
    assert (code, [outcome[key] for key in keys]) == (0, [120, {"0": 120}, 0, 0])
    percentiles = [outcome[key] for key in ("p50_ms", "p90_ms", "p99_ms", "max_ms")]
    assert percentiles == sorted(percentiles)
    head, *rows = (tmp_path / "csv").read_text().splitlines()
    assert head == "report,instance,due_s,latency_ms,code"
    assert [int(row.split(",")[0]) for row in rows] == list(range(120))


def test_instances_that_expire_after_the_run_are_none_of_its_matter(start):
    server = start(clock="")
    fleet = begin(server, *FEW)
    server.wait_for("DETECT NEW REQUEST", times=2)
    server.wait_for(END_OF_STATUS, times=3)
    server.shift_clock(200)  # before the log is flushed, so that the fleet finds it with the deletions
    server.wait_for("Deleting korvane", times=2)
    assert "sums agree; 0 deletion lines" in fleet.communicate()[0] and fleet.returncode == 0
