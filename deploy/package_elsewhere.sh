#!/usr/bin/env bash
# Makes the packages for another Debian release or architecture, in a root of its own, and puts them into
# build/packages-RELEASE-ARCHITECTURE. For ./dev package. Needs root.
set -euo pipefail
cd "$(dirname "$0")/.."
. deploy/roots.sh
release=$1 architecture=$2 keys=$3 suffix=$4 packages=build/packages-$1-$2
can_make_roots || { echo "package: needs root and namespaces for another release or architecture" >&2; exit 1; }

if [ "$architecture" = amd64 ]; then root_for "$release"; else root_for "$release" "$architecture"; fi
install -d -m 700 "$root/ugs/keys-to-build-in"
cp --preserve=mode,timestamps "$keys/public.pem" "$keys/private.scrambled" "$root/ugs/keys-to-build-in/"
# What it prints names the place where they are here.
in_root "$root" /ugs/dev package --keys /ugs/keys-to-build-in --arch "$architecture" ${suffix:+--suffix "$suffix"} |
  sed "s|^build/packages/|$packages/|"
rm -rf "$packages" "$root/ugs/keys-to-build-in"
cp -r "$root/ugs/build/packages" "$packages"
