#!/usr/bin/env bash
# Installs, greets, boots, upgrades, removes and purges the packages of directory $2 in a minimal root of the Debian
# release $1. $3: directory of the same with a higher version. With a release $4, those are for it, and the root is
# upgraded to it first. Packages for arm64 get a root of arm64, under qemu, which is not booted. Needs root, and in
# build/node an installation of the npm package.
set -euo pipefail
cd "$(dirname "$0")/../.."
. deploy/roots.sh
. tests/deploy/first_program.sh
release=$1 packages=$2 newer=$3 next=${4-}
root=$PWD/build/roots/$release.packages architecture=
if [ -e "$(echo "$packages"/korvaneugs_*_arm64.deb)" ] && [ "$(dpkg --print-architecture)" != arm64 ]; then
  [ -n "${emulating-}" ] || { emulating=1 emulating_arm64 tests/deploy/packages.sh "$@"; exit; }
  root+=-arm64 architecture=arm64
fi
documents=$root/usr/share/doc

fail() {
  echo "packages: $*" >&2
  exit 1
}

inside() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"; }

upgrade_release() {
  find "$root"/etc/apt/sources.list* -type f -exec sed -i "s/\b$release\b/$next/g" {} +
  in_root "$root" sh -c 'apt-get update -qq && apt-get dist-upgrade -qq -y -o Dpkg::Options::=--force-confold' \
    >"$root/root/upgrade.out" 2>&1 || fail "upgrading to $next failed: $(tail -n 3 "$root/root/upgrade.out")"
}

install_from() {
  rm -rf "$root/tmp/packages"
  cp -r "$1" "$root/tmp/packages"
  inside sh -c 'apt-get install -qq -y --no-install-recommends /tmp/packages/*.deb' >/dev/null 2>&1 ||
    fail "installing from $1 failed"
}

# reports LANGUAGE COMMAND...: the first program that a document shows prints 0, and nothing else.
reports() {
  local answer
  answer=$(inside "${@:2}" 2>&1) || fail "$1: $answer"
  [ "$answer" = 0 ] || fail "$1: $answer"
}

# A compiler and an interpreter, which nothing before has needed, and programs for them.
install_languages() {
  local first=$root/tmp/first
  inside apt-get install -qq -y --no-install-recommends gcc libc6-dev nodejs >/dev/null 2>&1 ||
    fail "installing a compiler and Node failed"
  mkdir "$first"
  cp -r build/node/node_modules "$root/usr/share/korvaneugs/public.pem" "$first"
  first_program c "$documents/korvaneugs-tools/protocol.md" >"$first/report.c"
  first_program js "$first/node_modules/ugs-client/README.md" >"$first/report.mjs"
}

# serve COMMAND...: runs the server as its unit does, greets it, and runs the command beside it.
serve() {
  inside install -d -o korvaneugs -g korvaneugs -m 750 /var/log/korvaneugs
  chroot --userspec=korvaneugs:korvaneugs "$root" sh -c 'cd /var/log/korvaneugs && exec KorvaneUGS' </dev/null >/dev/null &
  local server=$! answer
  answer=$(inside ugs ping --wait 30) || fail "ping: $answer"
  [ "$answer" = "1 (hello)" ] || fail "ping: $answer"
  "$@"
  kill "$server"
  wait "$server" || fail "the server ended with $?"
  [ -s "$root/var/log/korvaneugs/logs/KorvaneUGS.log.txt" ] || fail "no log"
  grep -q "MaxCameras    : in use: 4" "$root/var/log/korvaneugs/logs/KorvaneUGS.log.txt" || fail "not in the sums"
  grep -q "Error 0x00AE06" "$root/var/log/korvaneugs/logs/KorvaneUGS.log.txt" || fail "another key is not told"
}

report() {
  local answer
  answer=$(inside ugs report --id hall-7 --camera rtsp://10.0.0.9/1 --use MaxCameras=4 2>&1) || true
  [ "$answer" = "0 (counted)" ] || fail "report: $answer"
  reports Python python3 -c "$(first_program python "$documents/python3-ugs-client/README.md")"
  # A report for another server's key: told as such, whatever OpenSSL makes of its padding.
  inside sh -c '[ -e /tmp/other ] || ugs keygen --out /tmp/other >/dev/null'
  answer=$(inside ugs report --key /tmp/other/public.pem --id other --camera rtsp://10.0.0.9/1 2>&1) || true
  [[ $answer == "2 "* ]] || fail "a report for another key: $answer"
}

# Boots the root with its own systemd: the sandboxes of the units can be tried in no other way. On the way it upgrades.
boot() {
  rm -rf "$root/root/newer"
  cp -r "$newer" "$root/root/newer"
  cat >"$root/root/try.sh" <<'TRY'
exec 2>&1
rm /usr/sbin/policy-rc.d  # packages may start and stop services from here on
pid() { systemctl show "$1" -p MainPID --value; }
ask() { /usr/bin/python3 -c 'import sys, urllib.request as r; print(r.urlopen("http://127.0.0.1:9305" + sys.argv[1]).read().decode())' "$1"; }
until_shown() { for _ in $(seq 200); do ask /metrics 2>/dev/null | grep -x "$1" && return; sleep 0.2; done; }
may_read() {
  if runuser -u "$1" -- head -c 1 "$2" >/dev/null 2>&1; then echo "$1 reads $2"; else echo "$1 does not read $2"; fi
  if runuser -u "$1" -- test -x "$2"; then echo "$1 runs $2"; fi
}
useradd joe
usermod -aG korvaneugs joe
echo "# the server"
ugs ping --wait 60
systemctl start korvaneugs  # returns once it is ready
systemctl is-active korvaneugs
stat -c "%A %U %G" /run/korvaneugs /run/korvaneugs/status
systemctl show korvaneugs -p StatusText
kill -ABRT "$(pid korvaneugs)"
ugs ping --wait 60
echo "# another process has the port"
systemctl stop korvaneugs
/usr/bin/python3 -c 'import socket, time; server = socket.create_server(("", 9304)); time.sleep(15)' &
sleep 1
systemctl start korvaneugs 2>/dev/null || echo "not started"
wait
ugs ping --wait 60
echo "# the page"
systemctl is-enabled korvaneugs-page
systemctl is-active korvaneugs-page
systemctl enable --now korvaneugs-page 2>/dev/null
until_shown "ugs_up 1"
ask / | grep -c "<html"
stat -c "%A %U %G" /var/lib/korvaneugs
for signal in KILL SEGV; do
  kill -$signal "$(pid korvaneugs-page)"
  until_shown "ugs_up 1"
done
systemctl show korvaneugs-page -p NRestarts -p RestartUSec
systemctl stop korvaneugs
until_shown "ugs_up 0"
systemctl start korvaneugs
until_shown "ugs_up 1"
until_shown "ugs_starts_total 2"
echo "# who reads what"
runuser -u joe -- ugs status >/dev/null
echo "joe sees the status: $?"
runuser -u joe -- ugs history >/dev/null
echo "joe sees the history: $?"
stat -c "%A %U %G" /var/lib/korvaneugs/history.db
may_read joe /var/log/korvaneugs/logs/KorvaneUGS.log.txt
may_read joe /usr/sbin/KorvaneUGS
may_read korvaneugs-page /usr/sbin/KorvaneUGS
# As the page's process does: with its groups and in its namespace, whose root may not help.
nsenter --target "$(pid korvaneugs-page)" --mount --setuid "$(id -u korvaneugs-page)" --setgid "$(id -g korvaneugs)" \
  head -c 1 /usr/sbin/KorvaneUGS /var/log/korvaneugs/logs/KorvaneUGS.log.txt 2>/dev/null | wc -c
echo "# an upgrade"
before="$(pid korvaneugs) $(pid korvaneugs-page)"
dpkg -i /root/newer/*.deb >/root/upgrade.out 2>&1
ugs ping --wait 60
until_shown "ugs_up 1"
for after in $(pid korvaneugs) $(pid korvaneugs-page); do case " $before " in *" $after "*) echo "not restarted" ;; esac; done
systemctl disable --now korvaneugs-page 2>/dev/null
dpkg -i /root/newer/korvaneugs-page*.deb >>/root/upgrade.out 2>&1
systemctl is-enabled korvaneugs-page
systemctl is-active korvaneugs-page
systemctl enable --now korvaneugs-page 2>/dev/null
apt-get remove -qq -y korvaneugs-page >>/root/upgrade.out 2>&1
systemctl is-active korvaneugs-page
ls -d /var/lib/korvaneugs
systemctl stop korvaneugs
[ -e /run/korvaneugs ] || echo "no socket is left"
systemctl show korvaneugs -p ExecMainStatus -p Result
TRY
  cat >"$root/etc/systemd/system/try.service" <<'UNIT'
[Service]
ExecStart=/bin/sh /root/try.sh
ExecStopPost=sh -c "systemctl poweroff >/dev/null 2>&1"
StandardOutput=file:/root/try.out
UNIT
  ln -s ../try.service "$root/etc/systemd/system/multi-user.target.wants/"
  timeout --kill-after=10 600 systemd-nspawn --quiet --register=no --keep-unit --private-network --boot --directory "$root" </dev/null \
    >"$root/root/boot.out" 2>&1 || true
  rm "$root/etc/systemd/system/multi-user.target.wants/try.service"
  diff - "$root/root/try.out" <<'EXPECTED' || fail "the services under systemd: $(tail -n 5 "$root/root/boot.out")"
# the server
1 (hello)
active
drwxr-x--- korvaneugs korvaneugs
srw-rw---- korvaneugs korvaneugs
StatusText=no report yet
1 (hello)
# another process has the port
not started
1 (hello)
# the page
disabled
inactive
ugs_up 1
1
drwxr-x--- korvaneugs-page korvaneugs
ugs_up 1
ugs_up 1
RestartUSec=200ms
NRestarts=2
ugs_up 0
ugs_up 1
ugs_starts_total 2
# who reads what
joe sees the status: 0
joe sees the history: 0
-rw-r----- korvaneugs-page korvaneugs
joe reads /var/log/korvaneugs/logs/KorvaneUGS.log.txt
joe does not read /usr/sbin/KorvaneUGS
korvaneugs-page does not read /usr/sbin/KorvaneUGS
0
# an upgrade
1 (hello)
ugs_up 1
disabled
inactive
inactive
/var/lib/korvaneugs
no socket is left
Result=success
ExecMainStatus=0
EXPECTED
}

report_in_languages() {
  reports C sh -c 'cd /tmp/first && cc report.c -lugs-client && ./a.out'
  reports JavaScript sh -c 'cd /tmp/first && node report.mjs'
}

export root documents
export -f fail inside first_program reports serve report report_in_languages
bare_root "$release" $architecture
rm -rf --one-file-system "$root"
cp -a "$base" "$root"
install_from "$packages"
without_network serve report
if [ -n "$next" ]; then
  upgrade_release
  without_network serve report
  install_from "$newer"
fi
[ "$(inside stat -c "%a %U %G" /usr/sbin/KorvaneUGS)" = "750 root korvaneugs-key" ] || fail "the program is open to all"
inside sh -c 'systemd-analyze verify --man=no /lib/systemd/system/korvaneugs*.service' || fail "systemd-analyze verify"
inside sh -c 'systemd-analyze security --offline=true --threshold=13 /lib/systemd/system/korvaneugs*.service' >/dev/null ||
  fail "a unit is more exposed than 1.3"
[ -L "$root/etc/systemd/system/multi-user.target.wants/korvaneugs.service" ] || fail "the service is not enabled"
[ -n "$architecture" ] || boot
install_from "$newer"
without_network serve report
if [ -z "$architecture" ]; then
  install_languages
  without_network serve report_in_languages
  rm -r "$root/tmp/first"
fi
[ "$(inside stat -c '%a %U %G' /usr/sbin/KorvaneUGS)" = "750 root korvaneugs-key" ] || fail "an upgrade opened the program"
inside apt-get remove -qq -y korvaneugs >/dev/null 2>&1
[ -d "$root/var/log/korvaneugs" ] || fail "removing took the logs away"
inside sh -c 'dpkg --purge korvaneugs korvaneugs-page korvaneugs-tools python3-ugs-client libugs-client-dev libugs-client1' >/dev/null
left=$(find "$root" -xdev \( -iname '*korvaneugs*' -o -name 'ugs.*' -o -name '*ugs[-_]client*' \) ! -path '*/tmp/packages*' ! -path '*/root/newer*')
[ -z "$left" ] || fail "left after a purge: $left"
[ -n "$architecture" ] || more=", in C and JavaScript too, confined by systemd, restarted"
echo "packages for $release${next:+ and $next}${architecture:+ on $architecture}: installed, answered${more-}, upgraded, removed and purged"
