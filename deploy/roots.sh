# To be sourced by bash: roots of Debian releases below build/roots, from the package sources of this machine.

own_release=$(. /etc/os-release && echo "${VERSION_CODENAME-}")

# Whether this user may make roots, and networks of their own.
can_make_roots() { [ "$(id -u)" = 0 ] && unshare --net --mount --pid --fork true 2>/dev/null; }

# bare_root RELEASE: makes build/roots/RELEASE.base, the least that Debian starts with, if it is not there.
bare_root() {
  local release=$1 root=build/roots/$1.base part=build/roots/$1.part mirror
  [ ! -e "$root" ] || return 0
  mirror=$(apt-get indextargets --format '$(SITE) $(RELEASE)' | awk -v own="$own_release" '$2 == own {print $1; exit}')
  echo "Making a root of $release" >&2
  rm -rf --one-file-system "$part"
  mkdir -p build/roots
  mmdebstrap --quiet --variant=minbase --include=systemd-sysv "$release" "$part" "deb $mirror $release main"
  rm -f "$part/etc/apt/sources.list"
  cp -r /etc/apt/sources.list* /etc/apt/apt.conf.d "$part/etc/apt/"
  find "$part"/etc/apt/sources.list* -type f -exec sed -i "s/\b$own_release\b/$release/g" {} +
  # Programs of this machine that are not there.
  grep -lr 'Post-Invoke\|Pre-Install' "$part/etc/apt/apt.conf.d" | xargs -r rm
  printf '#!/bin/sh\nexit 101\n' >"$part/usr/sbin/policy-rc.d"
  chmod +x "$part/usr/sbin/policy-rc.d"
  in_root "$part" apt-get update -qq
  mv "$part" "$root"  # whole, or not at all
}

# in_root ROOT COMMAND...: runs a command there, with this environment's UGS_, CI and SOURCE_DATE_EPOCH. All that it
# starts ends with it.
in_root() {
  local root=$1 passed
  shift
  mapfile -t passed < <(env | grep -E '^(UGS_[A-Z_]*|CI|SOURCE_DATE_EPOCH|DEB_HOST_ARCH)=')
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive "${passed[@]}" \
    unshare --mount --pid --fork --kill-child sh -c '
      root=$1
      shift
      mount --rbind /dev "$root/dev"
      mount -t proc proc "$root/proc"
      exec chroot "$root" "$@"' sh "$root" "$@"
}

# without_network COMMAND...: in a network that has only loopback. Functions of this file may be commands.
without_network() {
  export -f in_root
  unshare --net bash -euo pipefail -c 'ip link set lo up; "$@"' bash "$@"
}

# checkout_in ROOT: copies this checkout to /ugs there; what was built there stays.
checkout_in() {
  mkdir -p "$1/ugs"
  find "$1/ugs" -mindepth 1 -maxdepth 1 ! -name build ! -name keys -exec rm -rf {} +
  git ls-files -z | xargs -0 cp --parents --preserve=mode,timestamps -t "$1/ugs"
}

# root_for RELEASE [ARCHITECTURE]: makes the root, puts this checkout into it with the packages that it needs, and sets
# `root`. A root is kept, and made again when the packages are others.
root_for() {
  local release=$1 architecture=${2-} lists
  root=build/roots/$release${architecture:+-$architecture}
  lists=$(sed -n '/^[a-z]*_packages=(/,/)/p' dev)
  bare_root "$release"
  if [ "$(cat "$root/root/packages" 2>/dev/null)" != "$lists" ]; then
    rm -rf --one-file-system "$root"
    cp -a "build/roots/$release.base" "$root"
    echo "Installing what building needs in $root" >&2
  fi
  checkout_in "$root"
  in_root "$root" /ugs/dev install ${architecture:+"$architecture"}
  printf '%s\n' "$lists" >"$root/root/packages"
}
