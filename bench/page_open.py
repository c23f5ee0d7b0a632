#!/usr/bin/env python3
"""What it takes to look at 10,000 instances, of which 85 report each second: prints when a browser has painted the
page, and the CPU of the page's service and of the browser while it is open. `bench/page_open.py BUILD`; needs
chromium-driver and python3-selenium."""

import json
import os
import statistics
import subprocess
import sys
import tempfile
import time
from socketserver import StreamRequestHandler, ThreadingUnixStreamServer
from threading import Thread

import psutil
from selenium import webdriver
from selenium.webdriver.chrome.service import Service

INSTANCES, RATE, SECONDS, LOOKS = 10_000, 85, 60, 5
OPTIONS = "headless no-sandbox disable-gpu disable-quic no-first-run disable-background-networking"
OPTIONS += " disable-component-update disable-sync"
URL = "http://127.0.0.1:9305/"
STARTED = int(time.time())


def status():
    now = int(time.time())
    server = {"type": "server", "schema": 1, "version": "1", "host": "bench", "time": now, "started": STARTED - 9000}
    yield server | {"serving": True, "reports_per_second": RATE, "reports_per_second_limit": 93, "log_written": now}
    counts = {"MaxCameras": 4, "Plates": 2, "Perimeter": 1}
    yield {"type": "totals", "instances": INSTANCES, "counts": {name: n * INSTANCES for name, n in counts.items()}}
    for number in range(INSTANCES):
        last = now - (now * RATE - number) % INSTANCES // RATE  # each in its turn
        cameras = [f"rtsp://10.1.{number}.1:554/stream{camera}" for camera in range(4)]
        row = {"type": "instance", "key": f"{number:064x}", "identity": f"hall-{number}", "address": "10.0.0.9"}
        row |= {"cameras": cameras, "cameras_count": 4, "counts": counts, "state": "alive", "period": 118, "last": last}
        yield row | {"first": STARTED, "layout": "v6", "flags": [], "reports": 9, "camera_seconds": 4 * (now - STARTED)}
    yield {"type": "end"}


class Status(StreamRequestHandler):
    def handle(self):
        # At once, as the server does: a line at a time, its reader would wake up for each.
        self.wfile.write(b"".join(json.dumps(line).encode() + b"\n" for line in status()))


def cpu_seconds(process):
    return sum(sum(each.cpu_times()[:2]) for each in (process, *process.children(recursive=True)))


def look(directory):
    options = webdriver.ChromeOptions()
    for option in [*OPTIONS.split(), f"user-data-dir={directory}"]:
        options.add_argument("--" + option)
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    driver.get(URL)
    while "hall-" not in driver.execute_script("return document.querySelector('#instances')?.innerText ?? ''"):
        time.sleep(0.05)
    shown = driver.execute_script("return performance.now()")
    paint = driver.execute_script("return performance.getEntriesByName('first-contentful-paint')[0].startTime")
    return driver, paint, shown


with tempfile.TemporaryDirectory() as directory:
    path = os.path.join(directory, "status")
    Thread(target=ThreadingUnixStreamServer(path, Status).serve_forever, daemon=True).start()
    page = subprocess.Popen([os.path.join(sys.argv[1], "ugs"), "page", "--socket", path], stdout=subprocess.PIPE)
    page.stdout.readline()
    time.sleep(5)
    paints, shows = [], []
    for number in range(LOOKS):
        driver, paint, shown = look(os.path.join(directory, f"browser-{number}"))
        paints.append(paint)
        shows.append(shown)
        if number + 1 < LOOKS:
            driver.quit()
    service, browser = psutil.Process(page.pid), psutil.Process(driver.service.process.pid)
    before = cpu_seconds(service), cpu_seconds(browser)
    time.sleep(SECONDS)
    shares = [(cpu_seconds(each) - used) * 100 / SECONDS for each, used in zip((service, browser), before)]
    driver.quit()
    page.terminate()
    page.wait()
print("| what | reached |\n|---|---|")
print(f"| first paint, {INSTANCES:,} instances, median of {LOOKS} | {statistics.median(paints):.0f} ms |")
print(f"| the instances are there | {statistics.median(shows):.0f} ms |")
print(f"| CPU of the page's service, open in one browser | {shares[0]:.1f} % of a core |")
print(f"| CPU of that browser | {shares[1]:.1f} % of a core |")
