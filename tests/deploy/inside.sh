#!/usr/bin/env bash
# What test_on.sh has done inside a root, each step by its name.
set -euo pipefail
cd "$(dirname "$0")/../.."

# Without debugger's data: half the time of the compiler.
quickly() { [ -f build/release/build.ninja ] || cmake --preset release -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -DNDEBUG" >/dev/null; }

# The two commands of the README.
newcomer() {
  local server answer console=/tmp/console
  ./dev run </dev/null >$console 2>&1 &
  server=$!
  until grep -q "Press a key to exit" $console; do
    kill -0 $server 2>/dev/null || { tail -n 30 $console; return 1; }
    sleep 1
  done
  answer=$(eval "$(grep -m 1 '^build/release/ugs report' README.md)")
  [ "$answer" = "0 (counted)" ] || { echo "the first report: $answer"; return 1; }
  until grep -qx '\[info\] MaxCameras    : in use: 4' $console; do sleep 0.1; done
  kill $server
  wait $server
  echo "the first report is answered and counted"
  ./dev test
}

# An arm64 build, with a script for each program that starts it under qemu: where the tests look for the program.
build_arm64() {
  local program
  [ -f build/arm64/build.ninja ] || cmake --preset ci -B build/arm64 --toolchain cmake/arm64.cmake >/dev/null
  cmake --build build/arm64 | sed -u '/^ninja: no work/d'
  mkdir -p build/emulated/tests build/emulated/include
  cp build/arm64/CMakeCache.txt build/emulated/
  ln -sfn "$PWD/client" build/emulated/include/ugs
  aarch64-linux-gnu-g++ -std=c++17 -Ibuild/emulated/include client/example/example.cpp \
    build/arm64/client/libugs-client.a -lzmq -lcrypto -o build/arm64/example
  for program in KorvaneUGS ugs example tests/unit-tests tests/server-with-test-key; do
    printf '#!/bin/sh\nexec qemu-aarch64 %s "$@"\n' "$PWD/build/arm64/$program" >"build/emulated/$program"
    chmod +x "build/emulated/$program"
  done
}

test_arm64() {
  local left_out=
  # qemu 7.2 of Debian 12 fails an assertion of its own in the child of a process that has threads.
  ! grep -q '^VERSION_CODENAME=bookworm' /etc/os-release || left_out=ClientTest.AChildOfItsProcess*
  build/emulated/tests/unit-tests --gtest_brief=1 --gtest_filter="-$left_out"
  UGS_BUILD_DIR=$PWD/build/emulated UGS_KEY_DIR=$PWD/keys PYTHONDONTWRITEBYTECODE=1 tests/end_to_end/run.sh -q -n 2 \
    -k "every_vector_is_answered_and_logged or examples_on_the_page"
}

"$@"
