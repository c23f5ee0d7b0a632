"""One encrypted report per instance and period: this server beside pushgateway and mosquitto, both over TLS.

Open loop: report i is due at t0 + i / RATE. The receiving program runs on core 0 and the generator on core 1; the
receiver's time on its core is read from schedstat. Prints medians and ranges of five runs as a table.
"""

import concurrent.futures
import contextlib
import http.client
import json
import os
import shutil
import socket
import ssl
import statistics
import subprocess
import sys
import tempfile
import time

import paho.mqtt.client as mqtt

from measure import cpu_seconds

BUILD = os.path.abspath(sys.argv[1])
INSTANCES, RATE, SECONDS, RUNS = 200, 40, 5, 5  # paho waits with select: 3 descriptors a client, below 1024
KEYS = [
    "MaxCameras",
    "ABD",
    "AN",
    "CR",
    "ClassTier1",
    "ClassTier2",
    "ClassTier3",
    "Perimeter",
    "Dwell",
    "Collision",
    "NeuralPack",
    "PX",
    "Plates",
    "Generative",
    "ClassTier0",
    "RemoteTier1",
    "RemoteTier2",
    "RemoteTier3",
    "RemoteTier4",
    "FaceTier1",
    "FaceTier2",
]
URLS = [f"rtsp://10.0.0.1:554/stream{camera}" for camera in range(4)]
METRICS = "".join(f"# TYPE ugs_{key} gauge\nugs_{key} 17\n" for key in KEYS).encode()
DOCUMENT = json.dumps(
    {"v6": {"KorvaneID": "i", "DockerID": "c" * 64, "CamRtspUrls": URLS, "InUse": dict.fromkeys(KEYS, 17)}}
)


@contextlib.contextmanager
def receiver(directory, port, *command):
    process = subprocess.Popen(
        ["taskset", "-c", "0", *command],
        cwd=directory,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
    )
    try:
        deadline = time.monotonic() + 20
        while True:
            try:
                socket.create_connection(("127.0.0.1", port), 1).close()
                break
            except OSError:
                if time.monotonic() > deadline or process.poll() is not None:
                    sys.exit(f"{command[0]} does not listen on port {port}")
                time.sleep(0.1)
        yield process.pid
    finally:
        process.terminate()
        process.wait()


def open_loop(report):
    """Calls report(instance) at its due times from a pool of threads. Returns the latencies in milliseconds."""
    start = time.monotonic() + 0.5

    def one(number):
        due = start + number / RATE
        time.sleep(max(0, due - time.monotonic()))
        report(number % INSTANCES)
        return (time.monotonic() - due) * 1000

    with concurrent.futures.ThreadPoolExecutor(16) as pool:
        return list(pool.map(one, range(RATE * SECONDS)))


def measure(pid, generate):
    before = cpu_seconds(pid)
    latencies = generate()
    return (cpu_seconds(pid) - before) * 1e6 / (RATE * SECONDS), statistics.median(latencies)


def ours(directory):
    def generate():
        output = subprocess.run(
            [
                "taskset",
                "-c",
                "1",
                BUILD + "/ugs",
                "fleet",
                "--key",
                "keys/public.pem",
                "--json",
                "--instances",
                str(INSTANCES),
                "--rate",
                str(RATE),
                "--duration",
                str(SECONDS),
            ],
            capture_output=True,
            text=True,
            check=True,
        )
        return [json.loads(output.stdout)["p50_ms"]]

    with receiver(directory, 9304, BUILD + "/KorvaneUGS") as pid:
        return measure(pid, generate)


def pushgateway(directory, *options):
    with open(directory + "/web.yml", "w", encoding="ascii") as file:
        file.write("tls_server_config: {cert_file: cert.pem, key_file: key.pem}\n")
    context = ssl.create_default_context(cafile=directory + "/cert.pem")

    def report(instance):
        connection = http.client.HTTPSConnection("127.0.0.1", 19091, context=context)
        connection.request("PUT", f"/metrics/job/ugs/instance/sim-{instance}", METRICS)
        response = connection.getresponse()
        response.read()
        connection.close()
        assert response.status in (200, 202), response.status

    with receiver(
        directory,
        19091,
        "prometheus-pushgateway",
        "--web.listen-address=127.0.0.1:19091",
        "--web.config.file=web.yml",
        *options,
    ) as pid:
        return measure(pid, lambda: open_loop(report))


def mqtt_wait(client, condition):
    while not condition():
        if client.loop(0.002) != mqtt.MQTT_ERR_SUCCESS:
            raise ConnectionError("the connection to mosquitto is lost")


def mqtt_client(directory, instance):
    client = mqtt.Client(f"sim-{instance}")
    client.tls_set(directory + "/cert.pem")
    client.connect("127.0.0.1", 18883)
    client.socket().setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)  # or Nagle adds 40 ms to a handshake
    mqtt_wait(client, client.is_connected)
    return client


def mqtt_publish(client, instance):
    message = client.publish(f"ugs/sim-{instance}", DOCUMENT, qos=1, retain=True)
    mqtt_wait(client, message.is_published)


def mosquitto(directory, kept):
    with open(directory + "/mosquitto.conf", "w", encoding="ascii") as file:
        file.write(
            "listener 18883 127.0.0.1\nallow_anonymous true\nset_tcp_nodelay true\ncertfile cert.pem\nkeyfile key.pem\n"
            f"user {os.environ.get('USER', 'root')}\n"
        )

    def report_on_new_connection(instance):
        client = mqtt_client(directory, instance)
        mqtt_publish(client, instance)
        client.disconnect()

    with receiver(directory, 18883, "mosquitto", "-c", "mosquitto.conf") as pid:
        if not kept:
            return measure(pid, lambda: open_loop(report_on_new_connection))
        clients = [mqtt_client(directory, instance) for instance in range(INSTANCES)]
        return measure(pid, lambda: open_loop(lambda instance: mqtt_publish(clients[instance], instance)))


def version(*command):
    output = subprocess.run(command, capture_output=True, text=True, check=False)
    return (output.stdout + output.stderr).splitlines()[0]


CASES = [
    ("KorvaneUGS, kept connections", ours, "-"),
    ("pushgateway, new connections", pushgateway, "totals, expiry, sealing of each report"),
    (
        "pushgateway, new connections, no consistency check",
        lambda directory: pushgateway(directory, "--push.disable-consistency-check"),
        "totals, expiry, sealing of each report, checking",
    ),
    (
        "mosquitto, new connections",
        lambda directory: mosquitto(directory, False),
        "totals, expiry, sealing of each report, parsing",
    ),
    (
        "mosquitto, kept connections",
        lambda directory: mosquitto(directory, True),
        "totals, expiry, sealing of each report, parsing",
    ),
]


def main():
    os.sched_setaffinity(0, {1})
    print(version("prometheus-pushgateway", "--version"))
    print(version("mosquitto", "-h"))
    print(version("openssl", "version"))
    print(f"{INSTANCES} instances, {RATE} reports/s for {SECONDS} s, {RUNS} runs: median (least to most)\n")
    print("| receiver | CPU per report, us | median latency, ms | left undone |\n|---|---|---|---|")
    figures = {name: [] for name, _, _ in CASES}
    for _ in range(RUNS):  # interleaved, so that a noisy minute hits all alike
        for name, run, _ in CASES:
            directory = tempfile.mkdtemp()
            subprocess.run(
                [
                    "openssl",
                    "req",
                    "-x509",
                    "-newkey",
                    "rsa:2048",
                    "-nodes",
                    "-days",
                    "2",
                    "-subj",
                    "/CN=peer",
                    "-addext",
                    "subjectAltName=IP:127.0.0.1",
                    "-keyout",
                    "key.pem",
                    "-out",
                    "cert.pem",
                ],
                cwd=directory,
                check=True,
                capture_output=True,
            )
            figures[name].append(run(directory))
            shutil.rmtree(directory)
    for name, _, undone in CASES:
        cells = [
            f"{statistics.median(column):.{digits}f} ({min(column):.{digits}f} to {max(column):.{digits}f})"
            for column, digits in zip(zip(*figures[name]), (0, 1))
        ]
        print(f"| {name} | {cells[0]} | {cells[1]} | {undone} |")


if __name__ == "__main__":
    main()
