#!/usr/bin/env bash
# Has our files for packages, services, monitoring and foreign clients read by the programs that they are for.
# $1: directory of the packages; $2: directory into which the npm package was installed. For ./dev check-deploy.
set -euo pipefail
cd "$(dirname "$0")/../.."
. tests/deploy/first_program.sh
packages=$1 node=$(readlink -f "$2") monitoring=$PWD/deploy/monitoring
scratch=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; wait; rm -rf "$scratch"' EXIT

# check WHAT COMMAND...: shows what the command printed only if it fails.
check() {
  "${@:2}" >"$scratch/out" 2>&1 || { cat "$scratch/out"; echo "check: $1 is not in order" >&2; exit 1; }
  echo "check: $1"
}
await() { for _ in {1..120}; do "$@" >/dev/null 2>&1 && return; sleep 1; done; "$@"; }

check packages lintian --fail-on error "$packages"/*.deb
for package in "$packages"/*.deb; do dpkg-deb --extract "$package" "$scratch/root"; done
dangling_links() {
  grep -roP --include='*.md' '\]\(\K[^)#:]+(?=[)#])' "$scratch/root/usr/share/doc" | while IFS=: read -r file link; do
    [ -e "${file%/*}/$link" ] || echo "$file: $link"
  done
}
check "the links of installed documents" diff /dev/null <(dangling_links)
for unit in deploy/*.service; do
  check "the sandbox of $unit" systemd-analyze security --offline=true --threshold=13 "$unit"
done
cd "$monitoring"
check "Prometheus' configuration" promtool check config prometheus.yml
check "its alerts" promtool test rules rules_test.yml
check "an agent's configuration" promtool check config --agent ../many-sites/site.yml
cd - >/dev/null

# A server, its page, and Prometheus.
(cd "$scratch" && UGS_STATUS=status exec "$OLDPWD/build/release/tests/server-with-test-key" </dev/null >console) &
build/release/ugs page --socket "$scratch/status" >"$scratch/page.out" &
metrics=http://127.0.0.1:9305/metrics log=$scratch/logs/KorvaneUGS.log.txt prometheus=127.0.0.1:19090
sed "s/15s/1s/; s|- rules.yml|- $monitoring/rules.yml|" "$monitoring/prometheus.yml" >"$scratch/prometheus.yml"
prometheus --config.file "$scratch/prometheus.yml" --storage.tsdb.path "$scratch/data" --web.listen-address $prometheus \
  2>"$scratch/prometheus.err" &
answers() { curl -fsG --data-urlencode "query=$1" http://$prometheus/api/v1/query | grep '"result":\[{'; }
check "Prometheus at the page" await answers 'ugs_up == 1'

cat >"$scratch/Report.java" <<'JAVA'
import org.zeromq.ZMQ;

public class Report {
  public static void main(String[] arguments) {
    ZMQ.Socket socket = ZMQ.context(1).socket(ZMQ.DEALER);
    socket.setReceiveTimeOut(20000);
    socket.connect("tcp://127.0.0.1:9304");
    socket.send(arguments[0]);
    System.out.println(socket.recvStr());
    System.exit(0);
  }
}
JAVA
payload=$(jq -r 'map(select(.reply == "0"))[0].payload' docs/vectors/vectors.json)
check "JeroMQ, which speaks ZMTP 2.0" diff <(echo 0) \
  <(java -cp /usr/share/java/jeromq.jar "$scratch/Report.java" "$payload" 2>&1)
cp tests/deploy/javascript_test.mjs "$node"  # Node looks for packages beside the script
check "the JavaScript package" env UGS_VECTORS="$PWD/docs/vectors" UGS_COMMAND="$node/node_modules/.bin/ugs-client" \
  node --test "$node/javascript_test.mjs"

check "metrics" promtool check metrics < <(curl -fs "$metrics")
check "metrics of each instance" promtool check metrics < <(curl -fs "$metrics?instances=1")
check "the page in a browser" env PYTHONPATH=tests/end_to_end \
  tests/end_to_end/run.sh -n 0 tests/deploy/browser_test.py

# Reports and errors by code, from the log and from the page.
logged() {
  echo "reports $(grep -c 'DETECT NEW REQUEST' "$log")"
  sed -n 's/^\[[^]]*\]\[E\].*\(0x[0-9A-F]*\).*/\1/p' "$log" | sort | uniq -c | awk '{print $2, $1}'
}
shown() {
  curl -fs "$metrics" | sed -n 's/^ugs_reports_total/reports/p'
  curl -fs "$metrics" | sed -n 's/^ugs_errors_total{code="\(.*\)"} \([1-9].*\)/\1 \2/p' | sort
}
agree() { diff <(logged) <(shown); }
check "metrics as in the log" await agree
while read -r expression; do
  check "$expression" await answers "$expression"
done < <(jq -r '.panels[].targets[].expr | sub("\\$__range"; "1h")' "$monitoring/grafana.json")
check "lnav's format" env HOME="$scratch" lnav -i deploy/lnav/korvaneugs.json
errors() { HOME=$scratch lnav -n -c ";SELECT count(*) AS errors FROM korvaneugs WHERE log_level='error'" "$log"; }
check "a log in lnav" grep -wF -- "$(grep -c '\]\[E\] ' "$log")" <(errors)

unit=$scratch/root/usr/lib/systemd/system/korvaneugs.service
check "strict frames in the service" grep -x "Environment=UGS_FRAMES=strict" "$unit"
check "strict frames in the container" grep -x "ENV UGS_FRAMES=strict" deploy/Containerfile

# What is compiled in, in the versions that the compiler sees and in those that a package's list says.
parts() {
  g++ -E -P -x c++ - <<'PARTS' | tail -n 5 | awk '{print $1, NF == 2 ? int($2 / 1e4)"."int($2 / 100) % 100"."$2 % 100 : $2"."$3"."$4}' | sort
#include <CLI/Version.hpp>
#include <fmt/core.h>
#include <rapidjson/rapidjson.h>
#include <spdlog/version.h>
#include <zmq.hpp>
CLI11 CLI11_VERSION_MAJOR CLI11_VERSION_MINOR CLI11_VERSION_PATCH
RapidJSON RAPIDJSON_MAJOR_VERSION RAPIDJSON_MINOR_VERSION RAPIDJSON_PATCH_VERSION
cppzmq CPPZMQ_VERSION_MAJOR CPPZMQ_VERSION_MINOR CPPZMQ_VERSION_PATCH
fmt FMT_VERSION
spdlog SPDLOG_VER_MAJOR SPDLOG_VER_MINOR SPDLOG_VER_PATCH
PARTS
}
listed() {
  awk '/^PackageName/ {name = $2} /^PackageVersion/ {version = $2} / CONTAINS / {print name, version}' "$1" |
    sed -E 's/ ([0-9]+:)?([0-9.]+).*/ \2/' | sort
}
tells_its_parts() {
  diff <(parts) <(listed "$1/korvaneugs.spdx") &&
    diff -i <(parts | cut -d " " -f 1 | sort -f) <(sed -n 's|^Files: src/\(.*\)/\*$|\1|p' "$1/copyright" | sort -f)
}
for package in "$packages"/*.deb; do
  name=$(dpkg-deb -f "$package" Package)
  check "parts and licences of $name" tells_its_parts "$scratch/root/usr/share/doc/$name"
done

# Programs that call the C library of the packages, as the page shows them.
mkdir "$scratch/shown"
first_program java docs/protocol.md >"$scratch/shown/Report.java"
first_program go docs/protocol.md >"$scratch/shown/report.go"
cp docs/vectors/test-public.pem "$scratch/shown/public.pem"
libraries=$(dirname "$scratch"/root/usr/lib/*/libugs-client.so)
export LD_LIBRARY_PATH=$libraries PKG_CONFIG_PATH=$libraries/pkgconfig
# A wheel, of a copy, since building it leaves files behind.
mkdir "$scratch/client"
cp -r client/python client/UgsClient.h "$scratch/client"
python() { PIP_NO_INDEX=1 PYTHONPATH=$scratch/site /usr/bin/python3 "$@"; }
check "Python's wheel" python -m pip wheel --no-build-isolation --no-deps --wheel-dir "$scratch" "$scratch/client/python"
check "which can be installed" python -m pip install --no-deps --target "$scratch/site" "$scratch"/*.whl
check "which has the library's version" diff <(python -m ugs_client --version) \
  <(python -c 'import importlib.metadata as m; print("libugs-client", m.version("ugs-client"))')
check "which reports" diff <(echo "0 (counted)") <(python -m ugs_client report --server 127.0.0.1 \
  --key docs/vectors/test-public.pem --identity wheel --camera rtsp://10.0.0.9/1 --use MaxCameras=4 2>&1)
cd "$scratch/shown"
check "Java's program" diff <(echo 0) <(java -cp /usr/share/java/jna.jar Report.java 2>&1)
check "Go's program" diff <(echo 0) <(GOCACHE=$scratch/go go run report.go 2>&1)
gunzip "$scratch"/root/usr/share/man/man*/*.gz
check "the manual's pages" mandoc -T lint -W warning "$scratch"/root/usr/share/man/man*/*
check "the manual's pages in groff" diff /dev/null \
  <(for page in "$scratch"/root/usr/share/man/man*/*; do man --warnings -l "$page" 2>&1 >/dev/null; done)
