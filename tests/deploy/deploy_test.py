"""What is installed beside the server: packages, unit, metrics, alerts, the page, many sites. `./dev check-deploy`."""

import contextlib
import glob
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "../end_to_end"))
from support import BUILD, KEYS, UGS, ServerTest, wait_until  # noqa: E402

ROOT = os.path.join(HERE, "../..")
MONITORING = os.path.join(ROOT, "deploy/monitoring")
MTAIL = ("mtail", "--progs", os.path.join(MONITORING, "ugs.mtail"), "--emit_prog_label=false")
PROMETHEUS = "http://127.0.0.1:19090"
CAMERAS = 'sum by (feature) (ugs_in_use{feature="MaxCameras"})'


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=False, timeout=300, **options)


def fetch(url, **parameters):
    query = "?" + urllib.parse.urlencode(parameters) if parameters else ""
    with urllib.request.urlopen(url + query, timeout=10) as answer:
        return answer.read().decode()


def ask(base, expression):
    """An instant query's samples, as pairs of labels and value; none while the server starts."""
    with contextlib.suppress(OSError):
        result = json.loads(fetch(base + "/api/v1/query", query=expression))["data"]["result"]
        return [(sample["metric"], float(sample["value"][1])) for sample in result]
    return []


def metrics(text):
    return {name: float(value) for name, value in re.findall(r"^(ugs_\S+) (\S+)$", text, re.MULTILINE)}


class DeployTest(ServerTest):
    def background(self, *command, **options):
        process = subprocess.Popen(
            command,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            start_new_session=True,
            **options,
        )

        def end():
            os.killpg(process.pid, signal.SIGTERM)
            process.wait(20)

        self.addCleanup(end)

    def scratch(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        return directory.name

    def mtail(self, log, port):
        self.background(
            *MTAIL, "--logs", log, "--address", "127.0.0.1", "--port", str(port), "--log_dir", self.scratch()
        )

        def answers():
            with contextlib.suppress(OSError):
                return fetch(f"http://127.0.0.1:{port}/metrics")

        wait_until(answers, "mtail")


class Packages(unittest.TestCase):
    def test_lintian_finds_no_error(self):
        packages = glob.glob(os.path.join(ROOT, "build/packages/*.deb"))
        self.assertEqual(len(packages), 4)
        found = run("lintian", "--fail-on", "error", *packages)
        self.assertEqual(found.returncode, 0, found.stdout)

    def test_the_unit_is_confined(self):
        unit = os.path.join(ROOT, "deploy/korvaneugs.service")
        found = run("systemd-analyze", "security", "--offline=true", "--threshold=15", unit)
        self.assertEqual(found.returncode, 0, found.stdout)

    def test_lnav_reads_a_log(self):
        with tempfile.TemporaryDirectory() as home:
            log = os.path.join(home, "KorvaneUGS.log.txt")
            with open(os.path.join(HERE, "golden.log"), encoding="ascii") as golden, open(
                log, "w", encoding="ascii"
            ) as copy:
                copy.write(golden.read())
            environment = {**os.environ, "HOME": home}
            run("lnav", "-i", os.path.join(ROOT, "deploy/lnav/korvaneugs.json"), env=environment)
            found = run(
                "lnav",
                "-n",
                "-c",
                ";SELECT count(*) AS errors FROM korvaneugs WHERE log_level = 'error'",
                log,
                env=environment,
            )
            self.assertRegex(found.stdout, r"errors\s+5")


class Metrics(DeployTest):
    def test_a_log_gives_these_metrics(self):
        with open(os.path.join(HERE, "golden.metrics"), encoding="ascii") as golden:
            found = run(
                *MTAIL,
                "--one_shot",
                "--one_shot_format",
                "prometheus",
                "--logs",
                os.path.join(HERE, "golden.log"),
                "--log_dir",
                self.scratch(),
            )
            self.assertEqual(metrics(found.stdout), metrics(golden.read()), found.stderr)

    def test_no_report_is_lost_or_counted_twice_over_ten_rotations(self):
        reports, size = 3000, 700_000
        directory = self.scratch()
        log = os.path.join(directory, "KorvaneUGS.log.txt")
        open(log, "w", encoding="ascii").close()
        self.mtail(log, 13904)
        written = run(os.path.join(BUILD, "tests/paced-log"), log, str(reports), "200", str(size))
        self.assertEqual(written.returncode, 0, written.stderr)
        self.assertGreater(reports * 2600, 10 * size)

        def counted():
            return metrics(fetch("http://127.0.0.1:13904/metrics"))

        wait_until(lambda: counted().get("ugs_reports_total", 0) >= reports, lambda: f"all reports: {counted()}")
        time.sleep(2)
        self.assertEqual(counted()["ugs_reports_total"], reports)
        self.assertEqual(counted()['ugs_in_use{feature="MaxCameras"}'], 50)


class Alerts(unittest.TestCase):
    def test_configuration_rules_and_their_tests(self):
        for command in (("check", "config", "prometheus.yml"), ("test", "rules", "rules_test.yml")):
            found = run("promtool", *command, cwd=MONITORING)
            self.assertEqual(found.returncode, 0, found.stdout + found.stderr)

    def test_the_agents_configuration(self):
        found = run("promtool", "check", "config", "--agent", os.path.join(ROOT, "deploy/many-sites/site.yml"))
        self.assertEqual(found.returncode, 0, found.stdout + found.stderr)


class Page(DeployTest):
    def test_the_page_shows_the_fleet(self):
        server = self.start().started()
        log = os.path.join(server.directory, "logs/KorvaneUGS.log.txt")
        data = os.path.join(ROOT, "build/monitor")
        shutil.rmtree(data, ignore_errors=True)
        self.background(os.path.join(ROOT, "dev"), "monitor", log)
        fleet = subprocess.run(
            [
                UGS,
                "fleet",
                "--key",
                os.path.join(KEYS, "public.pem"),
                "--instances",
                "50",
                "--period",
                "10",
                "--duration",
                "60",
            ],
            capture_output=True,
            text=True,
            check=False,
            timeout=120,
        )
        self.assertEqual(fleet.returncode, 0, fleet.stdout)
        wait_until(
            lambda: [value for _, value in ask(PROMETHEUS, CAMERAS)] == [server.figures()["MaxCameras"]],
            "the server's figures in Prometheus",
        )
        time.sleep(16)  # for the rules
        ((_, cameras),) = ask(PROMETHEUS, 'ugs:in_use:steady{feature="MaxCameras"}')
        address, picture = PROMETHEUS + "/consoles/ugs.html", os.path.join(ROOT, "build/page.png")
        chromium = (
            "chromium",
            "--headless",
            "--no-sandbox",
            "--disable-gpu",
            "--disable-quic",
            "--no-first-run",
            "--disable-background-networking",
            "--disable-component-update",
            "--disable-sync",
            "--user-data-dir=" + self.scratch(),
            "--virtual-time-budget=6000",
            "--window-size=1280,900",
        )
        page = run(*chromium, "--dump-dom", address).stdout
        run(*chromium, "--screenshot=" + picture, address)
        for text in (f"<b>{cameras:,.0f}</b><small>cameras in use</small>", "No alarm"):
            self.assertTrue(text in page, f"{text} is not on the page; {picture} shows it")
        self.assertGreaterEqual(page.count('class="curve"'), 5)
        self.check_dashboard()

    def check_dashboard(self):
        with open(os.path.join(MONITORING, "grafana.json"), encoding="ascii") as file:
            expressions = [
                target["expr"].replace("$__range", "1h")
                for panel in json.load(file)["panels"]
                for target in panel["targets"]
            ]
        for expression in expressions:
            if "errors" not in expression:  # there are none
                self.assertTrue(ask(PROMETHEUS, expression), expression)


class Sites(DeployTest):
    def test_two_sites_are_added_up_in_one_place(self):
        middle = "http://127.0.0.1:18428"
        self.background(
            "victoria-metrics",
            "-httpListenAddr=127.0.0.1:18428",
            "-storageDataPath=" + self.scratch(),
            "-search.latencyOffset=0s",
        )  # else it shows nothing of the last 30 s
        with open(os.path.join(ROOT, "deploy/many-sites/site.yml"), encoding="ascii") as file:
            template = file.read()
        for number, site in enumerate(("north", "south"), 1):
            directory, port = self.scratch(), 13904 + number
            log, configuration = os.path.join(directory, "KorvaneUGS.log.txt"), os.path.join(directory, "site.yml")
            open(log, "w", encoding="ascii").close()
            self.mtail(log, port)
            with open(configuration, "w", encoding="ascii") as file:
                file.write(
                    template.replace("SITE", site)
                    .replace(":3903", f":{port}")
                    .replace(":8428", ":18428")
                    .replace("15s", "2s")
                )
            self.background(
                "prometheus",
                "--enable-feature",
                "agent",
                "--config.file",
                configuration,
                "--storage.agent.path",
                os.path.join(directory, "data"),
                "--web.listen-address",
                f"127.0.0.1:{port + 10}",
            )
            run(os.path.join(BUILD, "tests/paced-log"), log, str(30 * number), "100", "10000000")

        def sums():
            return {
                (labels["site"], labels["feature"]): value
                for labels, value in ask(middle, "sum by (site, feature) (max_over_time(ugs_in_use[3m]))")
            }

        wait_until(
            lambda: sums().get(("north", "MaxCameras")) == 30 and sums().get(("south", "MaxCameras")) == 50,
            lambda: f"both sites: {sums()}",
        )
        self.assertEqual([value for labels, value in ask(middle, CAMERAS)], [80])


if __name__ == "__main__":
    unittest.main()
