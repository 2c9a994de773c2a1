#!/usr/bin/env bash
# Builds the packages, and tries them as a packager would: the tar.gz from a folder, and the Debian
# package, where this is root, in a bare Debian of its own, until it is purged again.
# Usage: tests/package_test.sh
# shellcheck disable=SC2016,SC2030,SC2031 # texts for others to expand; a PATH for a subshell
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
umask 022
scripts/build package package
packages=$PWD/build/package scratch=$(mktemp -d)
trap 'rm -rf --one-file-system "$scratch"' EXIT
deb=("$packages"/*.deb) tarball=("$packages"/*.tar.gz)

# What follows runs with the tools on the PATH, here and in the bare Debian.
# A product is made, packed and run; nothing but the log stays.
try_tools() {
  set -eu
  home=$(mktemp -d)
  cd "$home"
  installer-new hello
  cd hello && ./hello -automate && ../hello-installed/bin/greet | grep -x 'Hello, World!'
  ./hello -automate -special remove
  rm hello.log
  cd ..
  sed -i "s|^dir .*|dir $home/target|" hello/hello.dat
  installer-pack hello
  mkdir start
  cd start && ../hello.run -- -automate && [ "$(ls)" = hello.log ] && [ -x ../target/bin/greet ]
  cd ..
  for tool in "$@"; do
    man_page=$(dirname "$(command -v "$tool")")/../share/man/man1/$tool.1.gz
    gzip -t "$man_page"
  done
  rm -rf "$home"
}

checker=
if [[ ! -e $packages/installer-check ]]; then
  echo "Not tried: installer-check (not built); packed without it"
  checker=$scratch/bin
  mkdir "$checker"
  printf '#!/bin/sh\n' >"$checker/installer-check"
  chmod +x "$checker/installer-check"
fi

echo "== C library" # the one that README promises; any other machine has what it was built with
needed=$(objdump -T "$packages/installer" | grep -oE 'GLIBC_[0-9.]+' | sort -uV | tail -n 1)
newest=$(printf '%s\nGLIBC_2.17\n' "$needed" | sort -V | tail -n 1)
[[ $newest == GLIBC_2.17 || $(uname -m) != x86_64 ]] ||
  { echo "the program needs $needed"; exit 1; }

echo "== lintian"
grep -q "^installer-tools ($(dpkg-deb -f "${deb[0]}" Version))" packaging/changelog ||
  { echo "packaging/changelog does not begin with this version"; exit 1; }
lintian --allow-root --fail-on error,warning "${deb[0]}"

echo "== tar.gz"
mkdir "$scratch/a folder"
tar -xzf "${tarball[0]}" -C "$scratch/a folder" --strip-components=1
mapfile -t tools < <(ls "$scratch/a folder/bin")
(export PATH=$scratch/a\ folder/bin:$checker:$PATH && try_tools "${tools[@]}")
bash --norc -c '. "$0/share/bash-completion/completions/installer-pack" && cd "$0" &&
  COMP_WORDS=(installer-check -s) COMP_CWORD=1 && compopt() { :; } &&
  _installer_tools installer-check -s installer-check && [[ ${COMPREPLY[*]} == -strict ]]' \
  "$scratch/a folder"

if ((EUID != 0)) || ! command -v debootstrap >/dev/null; then
  echo "Not tried: the Debian package in a bare Debian (needs root and debootstrap)"
  exit 0
fi
echo "== bare Debian"
# shellcheck source=/dev/null
suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
mirror=$(apt-get indextargets --format '$(REPO_URI)' "Codename: $suite" "Component: main" |
  head -n 1)
root=$scratch/root
debootstrap --variant=minbase --include=makeself "$suite" "$root" "$mirror" >"$scratch/log" ||
  { tail "$scratch/log"; exit 1; }
inside() { unshare --mount --pid --fork --kill-child chroot "$root" env -i PATH="$PATH" "$@"; }
files() { (cd "$root" && find . -path ./proc -prune -o -path './var/*' -prune -o -print | sort); }
files >"$scratch/before"
cp "${deb[0]}" "$root/tmp/tools.deb"
[[ -z $checker ]] || cp "$checker/installer-check" "$root/usr/local/bin"
{ declare -f try_tools; echo "try_tools ${tools[*]}"; } >"$root/tmp/try"
inside dpkg -i /tmp/tools.deb
inside bash /tmp/try
inside su nobody -s /bin/bash -c 'installer-new /tmp/one && installer-pack /tmp/one /tmp/one.run'
inside dpkg --purge installer-tools makeself
inside su nobody -s /bin/sh -c 'cd /var/tmp && /tmp/one.run -- -automate -special remove'
rm -rf "$root"/tmp/* "$root/usr/local/bin/installer-check"
files | diff "$scratch/before" - | grep '^>' && { echo "left by the package"; exit 1; }
echo "All of it holds."
