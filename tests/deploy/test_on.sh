#!/usr/bin/env bash
# Does on the Debian release $1 what a newcomer does, in a root and a network of its own: starts the server, sends the
# first report of the README, and runs the tests. With --arch arm64: builds for arm64, runs the unit tests and the
# vectors under qemu, lets each architecture's instances report to the other's server, and makes, installs and uses the
# packages. With --quick: without debugger's data. With -- COMMAND: runs only that there, in this machine's network. For
# ./dev test-on.
set -euo pipefail
cd "$(dirname "$0")/../.."
. deploy/roots.sh
fail() {
  echo "test-on $release: $*" >&2
  exit 1
}

usage="usage: ./dev test-on RELEASE [--arch arm64] [--quick] [-- COMMAND...]"
release=${1:?$usage} architecture='' quick= command=()
shift
while [ $# -gt 0 ]; do
  case $1 in
    --quick) quick=1 ;;
    --arch)
      architecture=${2:?$usage}
      shift
      ;;
    --)
      command=("${@:2}")
      [ ${#command[@]} -gt 0 ] || fail "$usage"
      break
      ;;
    *)
      echo "$usage" >&2
      exit 2
      ;;
  esac
  shift
done

inside() { in_root "$root" /ugs/tests/deploy/inside.sh "$@"; }

# expect LINE COMMAND...: this is the last that the command prints.
expect() {
  local answer
  answer=$("${@:2}" 2>&1) || fail "$answer"
  [ "${answer##*$'\n'}" = "$1" ] || fail "not $1: $answer"
}

# A program of the arm64 build, and of this machine's.
arm64() { in_root "$root" "/ugs/build/emulated/$1" "${@:2}"; }
here() { "build/release/$1" "${@:2}"; }

# counted SERVER INSTANCE: instances of the one are counted by a server of the other. Its key `q` ends the server.
counted() {
  local server
  mkfifo "$scratch/keys"
  exec 5<>"$scratch/keys"
  "$1" KorvaneUGS <"$scratch/keys" >"$scratch/console" &
  server=$!
  expect "1 (hello)" "$2" ugs ping --wait 60 --timeout 5
  expect "0 (counted)" "$2" ugs report --id hall-7 --camera rtsp://10.0.0.9/1 --use MaxCameras=4
  expect counted "$2" example 127.0.0.1 keys/public.pem
  echo q >&5
  wait "$server" || fail "the server ended with $?"
  grep -qx '\[info\] MaxCameras    : in use: 5' "$scratch/console" || fail "not in the sums"
  rm "$scratch/keys"
  echo "an instance of '$2' is counted by a server of '$1'"
}

amd64() {
  root_for "$release"
  export root
  [ -z "$quick" ] || inside quickly
  without_network inside newcomer
}

arm64_too() {
  ./dev need lintian mmdebstrap qemu-user-static arch-test
  ./dev ugs --help >/dev/null
  cmake --build build/release --target KorvaneUGS ugs-client-static >/dev/null  # whose key pair both have
  mkdir -p build/emulated/ugs
  ln -sf "$PWD"/client/*.h build/emulated/ugs/
  g++ -std=c++17 -Ibuild/emulated client/example/example.cpp build/release/client/libugs-client.a -lzmq -lcrypto \
    -o build/release/example
  root_for "$release" arm64
  mkdir -p "$root/ugs/keys"
  cp -u --preserve=mode,timestamps keys/public.pem keys/private.scrambled "$root/ugs/keys/"
  ln -sfn ugs/keys "$root/keys"
  export root
  inside build_arm64
  without_network inside test_arm64
  without_network counted here arm64
  without_network counted arm64 here
  packages=build/packages-$release-arm64
  ./dev package --release "$release" --arch arm64
  lintian --fail-on error "$packages"/*.deb || fail "the packages are not in order"
  tests/deploy/packages.sh "$release" "$packages" "$packages"
}

if ! can_make_roots; then
  [ -z "${CI-}" ] && [ ${#command[@]} = 0 ] || fail "needs root and namespaces"
  echo "test-on $release: skipped; needs root and namespaces"
  exit
fi
if [ ${#command[@]} -gt 0 ]; then
  root_for "$release" ${architecture:+"$architecture"}
  in_root "$root" /bin/sh -c 'cd /ugs && exec "$@"' sh "${command[@]}"
  exit
fi
export scratch release
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export -f fail inside expect arm64 here counted
case $architecture in
  '') amd64 ;;
  arm64) arm64_too ;;
  *) fail "there is no build for $architecture" ;;
esac
echo "test-on $release${architecture:+ for $architecture}: passed"
