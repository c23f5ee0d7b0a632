#!/usr/bin/env bash
# Installs, greets, upgrades, removes and purges the packages in a minimal Debian 12 in the directory $1, which is
# made on first use. Needs root. $2: directory of the packages; $3: directory of the same with a higher version.
set -euo pipefail
root=$1 packages=$2 newer=$3
readme=$root/usr/share/doc/python3-ugs-client/README.md

fail() {
  echo "packages: $*" >&2
  exit 1
}

inside() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"; }

# A root as debootstrap leaves it, with this machine's package sources.
make_root() {
  local base=$root.base part=$root.part mirror
  if [ ! -e "$base" ]; then
    rm -rf --one-file-system "$part"
    mirror=$(apt-get indextargets --format '$(SITE) $(RELEASE)' | awk '$2 == "bookworm" {print $1; exit}')
    debootstrap --variant=minbase --include=systemd-sysv bookworm "$part" "$mirror" >/dev/null
    rm -f "$part/etc/apt/sources.list"
    cp -r /etc/apt/sources.list* /etc/apt/apt.conf.d "$part/etc/apt/" 2>/dev/null || true
    chroot "$part" apt-get update -qq
    mv "$part" "$base"  # whole, or not at all
  fi
  rm -rf "$root"
  cp -a "$base" "$root"
  printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
  chmod +x "$root/usr/sbin/policy-rc.d"
}

install_from() {
  rm -rf "$root/tmp/packages"
  cp -r "$1" "$root/tmp/packages"
  inside sh -c 'apt-get install -qq -y --no-install-recommends /tmp/packages/*.deb' >/dev/null 2>&1 ||
    fail "installing from $1 failed"
}

# Runs the server as its unit does, and greets it.
greet() {
  inside install -d -o korvaneugs -g korvaneugs -m 750 /var/log/korvaneugs
  chroot --userspec=korvaneugs:korvaneugs "$root" sh -c 'cd /var/log/korvaneugs && exec KorvaneUGS' </dev/null >/dev/null &
  local server=$! answer
  answer=$(inside ugs ping --wait 30) || fail "ping: $answer"
  [ "$answer" = "1 (hello)" ] || fail "ping: $answer"
  answer=$(inside python3 -c "$(sed -n '/^```python/,/^```/{//!p}; /^This prints/q' "$readme")" 2>&1) || fail "Python: $answer"
  [ "$answer" = 0 ] || fail "Python: $answer"
  kill "$server"
  wait "$server" || fail "the server ended with $?"
  [ -s "$root/var/log/korvaneugs/logs/KorvaneUGS.log.txt" ] || fail "no log"
}

# Boots the root with its own systemd: the sandbox of the unit can be tried in no other way.
boot() {
  cat >"$root/root/try.sh" <<'TRY'
ugs ping --wait 30
systemctl start korvaneugs  # returns once it is ready
systemctl is-active korvaneugs
stat -c "%A %U %G" /run/korvaneugs /run/korvaneugs/status
systemctl show korvaneugs -p StatusText
kill -ABRT "$(systemctl show korvaneugs -p MainPID --value)"
ugs ping --wait 30
systemctl stop korvaneugs
[ -e /run/korvaneugs ] || echo "no socket is left"
systemctl show korvaneugs -p NRestarts -p ExecMainStatus -p Result
systemctl poweroff 2>/dev/null
TRY
  cat >"$root/etc/systemd/system/try.service" <<'UNIT'
[Service]
ExecStart=/bin/sh /root/try.sh
StandardOutput=file:/root/try.out
StandardError=inherit
UNIT
  ln -s ../try.service "$root/etc/systemd/system/multi-user.target.wants/"
  timeout 120 systemd-nspawn --quiet --register=no --keep-unit --boot --directory "$root" </dev/null >"$root/root/boot.out" 2>&1 || true
  rm "$root/etc/systemd/system/multi-user.target.wants/try.service"
  diff - "$root/root/try.out" <<'EXPECTED' || fail "the service under systemd: $(tail -n 5 "$root/root/boot.out")"
1 (hello)
active
drwxr-x--- korvaneugs korvaneugs
srw-rw---- korvaneugs korvaneugs
StatusText=no report yet
1 (hello)
no socket is left
Result=success
NRestarts=1
ExecMainStatus=0
EXPECTED
}

make_root
install_from "$packages"
greet
boot
[ "$(inside stat -c "%a %U %G" /usr/sbin/KorvaneUGS)" = "750 root korvaneugs" ] || fail "the program is open to all"
inside systemd-analyze verify --man=no /lib/systemd/system/korvaneugs.service || fail "systemd-analyze verify"
[ -L "$root/etc/systemd/system/multi-user.target.wants/korvaneugs.service" ] || fail "the service is not enabled"
install_from "$newer"
greet
[ "$(inside stat -c '%a %U %G' /usr/sbin/KorvaneUGS)" = "750 root korvaneugs" ] || fail "an upgrade opened the program"
inside apt-get remove -qq -y korvaneugs >/dev/null 2>&1
[ -d "$root/var/log/korvaneugs" ] || fail "removing took the logs away"
inside sh -c 'dpkg --purge korvaneugs korvaneugs-tools python3-ugs-client libugs-client-dev libugs-client1' >/dev/null
left=$(find "$root" -xdev \( -iname '*korvaneugs*' -o -name 'ugs.*' -o -name '*ugs[-_]client*' \) ! -path '*/tmp/packages*')
[ -z "$left" ] || fail "left after a purge: $left"
echo "packages: installed, answered, confined by systemd, restarted, upgraded, removed and purged"
