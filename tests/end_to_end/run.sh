#!/bin/sh
# Runs the end-to-end tests side by side, each in a network of its own, where this machine allows that.
cd "$(dirname "$0")/../.." || exit
tests="env --default-signal=HUP /usr/bin/python3 -m pytest"  # it may have been started under nohup
if unshare --net true 2>/dev/null; then
  exec $tests -n 6 "$@"
elif unshare --user --map-current-user --keep-caps --net true 2>/dev/null; then
  exec unshare --user --map-current-user --keep-caps $tests -n 6 "$@"
fi
echo "No network namespaces here: one test after the other, in the machine's own network"
exec $tests "$@"
