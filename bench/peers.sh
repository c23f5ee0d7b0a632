#!/usr/bin/env bash
# The same fleet against what a site would otherwise install from Debian. See bench/peers.py.
set -euo pipefail
cd "$(dirname "$0")/.."
./dev build
./dev need prometheus-pushgateway mosquitto openssl python3 python3-paho-mqtt
exec /usr/bin/python3 bench/peers.py build/release "$@"
