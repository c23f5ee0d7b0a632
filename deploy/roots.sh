# To be sourced by bash: roots of Debian releases below build/roots, from the package sources of this machine.

own_release=$(. /etc/os-release && echo "${VERSION_CODENAME-}")

# Whether this user may make roots, and networks of their own.
can_make_roots() { [ "$(id -u)" = 0 ] && unshare --net --mount --pid --fork true 2>/dev/null; }

# emulating_arm64 COMMAND...: runs it where the kernel starts arm64 programs under qemu. If this machine does not have
# that already, then in a user namespace, which may have its own list of such formats (from Linux 6.7 on).
emulating_arm64() (
  if arch-test arm64 >/dev/null; then exec "$@"; fi
  pid=$BASHPID
  {
    while [ /proc/$pid/ns/user -ef /proc/self/ns/user ]; do sleep 0.01; done
    for ids in uid gid; do echo 0 0 4294967295 >/proc/$pid/${ids}_map; done
  } &
  exec unshare --user --mount bash -euo pipefail -c '
    until read -r < /proc/self/gid_map; do sleep 0.01; done
    mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
    cat /usr/lib/binfmt.d/qemu-aarch64.conf >/proc/sys/fs/binfmt_misc/register
    exec "$@"' bash "$@"
)

# bare_root RELEASE [ARCHITECTURE]: makes `base`, the least that Debian starts with, below build/roots, if it is not
# there.
bare_root() {
  local release=$1 architecture=${2-} root part mirror
  base=build/roots/$release${architecture:+.$architecture}.base root=$base part=$base.part
  [ ! -e "$root" ] || return 0
  mirror=$(apt-get indextargets --format '$(SITE) $(RELEASE)' | awk -v own="$own_release" '$2 == own {print $1; exit}')
  echo "Making a root of $release${architecture:+ for $architecture}" >&2
  rm -rf --one-file-system "$part"
  mkdir -p build/roots
  mmdebstrap --quiet --variant=minbase --include=systemd-sysv ${architecture:+--architectures="$architecture"} \
    "$release" "$part" "deb $mirror $release main"
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
    cp -a "$base" "$root"
    echo "Installing what building needs in $root" >&2
  fi
  checkout_in "$root"
  in_root "$root" /ugs/dev install ${architecture:+"$architecture"}
  printf '%s\n' "$lists" >"$root/root/packages"
}
