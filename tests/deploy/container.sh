#!/usr/bin/env bash
# Builds the container for the Debian release $1 with the packages of directory $2, starts it in a network of its own,
# and has it count a report. Its base is a root of ours, as no registry may be in reach. Needs root.
set -euo pipefail
cd "$(dirname "$0")/../.."
. deploy/roots.sh
release=$1 packages=$2
# podman wants the second version of cgroups, and no other beside it; what is mounted here goes with this script.
if [ "${3-}" != namespace ]; then
  exec unshare --mount --pid --fork --kill-child --mount-proc tests/deploy/container.sh "$release" "$packages" namespace
fi
! mountpoint -q /sys/fs/cgroup || umount -R /sys/fs/cgroup
mount -t cgroup2 none /sys/fs/cgroup
scratch=$(mktemp -d)
trap 'rm -rf --one-file-system "$scratch"' EXIT

fail() {
  echo "container for $release: $*" >&2
  [ ! -e "$scratch/err" ] || tail -n 5 "$scratch/err" >&2
  exit 1
}
podman() {
  command podman --root "$scratch/store" --runroot "$scratch/run" --storage-driver vfs --cgroup-manager cgroupfs "$@" \
    2>>"$scratch/err"
}
in_container() { podman exec ugs "$@"; }

bare_root "$release"
cp -a "$base" "$scratch/base"
# Debian's own image has no systemd, which is essential on 13.
in_root "$scratch/base" apt-get purge -qq -y --allow-remove-essential --auto-remove systemd-sysv systemd >/dev/null 2>&1 || fail "no base"
tar -C "$scratch/base" -c . | podman import - "localhost/debian:$release-slim" >/dev/null || fail "no base"
podman build --layers=false --isolation chroot --pull=never --format docker --build-arg RELEASE="$release" -f deploy/Containerfile \
  -t korvaneugs "$packages" >"$scratch/build.out" || fail "the build failed: $(tail -n 3 "$scratch/build.out")"
# No more than this machine grants: podman's own figures may be higher.
podman run -d --name ugs --network none --cgroups disabled --ulimit core=0 --ulimit nofile="$(ulimit -Hn):$(ulimit -Hn)" \
  --ulimit nproc="$(ulimit -Hu):$(ulimit -Hu)" korvaneugs >/dev/null || fail "not started"
in_container ugs ping --wait 30 >/dev/null || fail "no answer"
diff - <(
  in_container ugs report --id hall-7 --camera rtsp://10.0.0.9/1 --use MaxCameras=4
  in_container ugs status | sed -n '1p; $p'
  in_container sh -c 'echo "$UGS_FRAMES, $(id -un)," $(grep core /proc/1/limits)'
  podman healthcheck run ugs && echo healthy
  podman stop ugs >/dev/null
  podman inspect ugs --format 'ended with {{.State.ExitCode}}'
  grep -ohx '.*MaxCameras    : in use: 4' "$scratch"/store/volumes/*/_data/logs/KorvaneUGS.log.txt | sed 's/.*\] *//'
) <<'EXPECTED' || fail "it does not run as it should"
0 (counted)
All is well
in use: MaxCameras 4
strict, korvaneugs, Max core file size 0 0 bytes
healthy
ended with 0
MaxCameras    : in use: 4
EXPECTED
echo "container for $release: built, counted, healthy, stopped"
