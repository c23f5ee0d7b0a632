"""The page in a real browser, with a real server whose clocks run on when a test says so."""

import json
import subprocess

import pytest
import support
from conftest import context, network, peer, serve, start  # noqa: F401
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from support import UGS, sealed_report, wait_until

EVIL = "<script>document.title='evil'</script>"
OPTIONS = "headless no-sandbox disable-gpu disable-quic no-first-run disable-background-networking"
OPTIONS += " disable-component-update disable-sync"


@pytest.fixture
def browser(network, tmp_path):
    options = webdriver.ChromeOptions()
    for option in [*OPTIONS.split(), f"user-data-dir={tmp_path}/browser"]:
        options.add_argument("--" + option)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    yield driver
    driver.quit()


@pytest.fixture
def page(browser, network, tmp_path):
    command = [UGS, "page", "--socket", tmp_path / "status", "--history", tmp_path / "history.db"]
    process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
    process.stdout.readline()
    yield browser
    process.terminate()
    assert process.wait(support.TIMEOUT) == 0


def text(browser, selector):
    return browser.execute_script("return document.querySelector(arguments[0])?.innerText ?? ''", selector)


def shows(browser, selector, wanted):
    wait_until(lambda: wanted in text(browser, selector))


def errors(browser):
    return [entry for entry in browser.get_log("browser") if entry["level"] == "SEVERE"]


def test_an_instance_appears_turns_late_is_lost_and_comes_back_without_a_reload(start, peer, page, tmp_path):
    server = start(clock="x1", env={"UGS_STATUS": str(tmp_path / "status")}.items())
    page.get("http://127.0.0.1:9305/")
    shows(page, "#live", "live")
    page.execute_script("window.same = true")
    peer.meet()
    for _ in range(3):
        assert peer.ask(sealed_report("lobby-1", MaxCameras=4)) == b"0"
    shows(page, "#instances", "lobby-1")
    shows(page, "#instances", "MaxCameras 4")
    button = page.find_element(By.CSS_SELECTOR, "button.name")
    button.send_keys(Keys.ENTER)
    shows(page, "#instances", "layout")
    server.shift_clock(60)
    shows(page, "#instances", "late")
    assert page.execute_script("return document.activeElement.className") == "name"  # the focus has stayed
    server.shift_clock(150)
    shows(page, "#losses", "lobby-1")
    shows(page, "#instances", "none")
    assert peer.ask(sealed_report("lobby-1", MaxCameras=5)) == b"0"
    shows(page, "#instances", "MaxCameras 5")
    wait_until(lambda: "✕ no" not in text(page, "#losses"))

    server.end()
    shows(page, "#live", "no news for")
    assert page.execute_script("return document.body.classList.contains('stale') && window.same")
    assert not errors(page)


def test_what_peers_send_stays_text(serve, page, tmp_path):
    peers = {"identity": EVIL, "container": EVIL, "address": EVIL, "counts": {EVIL: 1}}
    row = {"type": "instance", "key": EVIL, "cameras": [EVIL], "cameras_count": 1, "state": EVIL, "flags": [EVIL]}
    row |= {"last": 1_790_000_000, "period": 1, "layout": EVIL, **peers}
    rows = [
        {"type": "server", "schema": 1, "host": EVIL, "version": EVIL, "time": 1_790_000_000, "serving": True},
        {"type": "totals", "counts": {EVIL: 1}},
        row,
        {"type": "loss", "key": EVIL, "reason": EVIL, "lost": 1_790_000_000, **peers},
        {"type": "refusal", "code": EVIL, "address": EVIL, "identity": EVIL},
        {"type": "hour", "hour": 1_790_000_000 // 3600 * 3600, "features": {EVIL: [1, 1, 1]}},
        {"type": "end"},
    ]
    serve(b"".join(json.dumps(item).encode() + b"\n" for item in rows))
    for path in ("", "?wall", "plain"):
        page.get(f"http://127.0.0.1:9305/{path}")
        shows(page, "body", EVIL)
        for name in page.find_elements(By.CSS_SELECTOR, "button.name"):
            name.click()
        assert page.execute_script("return document.querySelectorAll('script:not([src])').length") == 0
        assert page.title.startswith(EVIL) or path == "plain"
    assert not errors(page)
