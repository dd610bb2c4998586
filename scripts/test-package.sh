#!/usr/bin/env bash
# Proves the Debian package on a clean Debian 12: builds it (scripts/package.sh), installs it
# with apt into a fresh minimal Debian 12 root made by debootstrap (plus man-db), and there runs
# `flowblur --version`, a small `flowblur demo`, `man` on every page, the bash completion and
# a purge. The debootstrapped root and every package apt fetched are cached under the build
# folder (or FLOWBLUR_DEBIAN_CACHE), so a second run downloads nothing.
# Needs root or sudo (chroot) and Debian's package mirror (FLOWBLUR_DEBIAN_MIRROR).
# Usage: scripts/test-package.sh [build-dir]   (default build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
case $build in /*) ;; *) build=$(pwd)/$build ;; esac
started=$SECONDS

sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
mirror=${FLOWBLUR_DEBIAN_MIRROR:-http://deb.debian.org/debian}
cache=${FLOWBLUR_DEBIAN_CACHE:-$build/debian12}
base=$cache/base.tar
mkdir -p "$cache/archives"
# The throwaway root goes to memory when there is room: unpacking and deleting some 20,000
# files is then a matter of seconds, not a minute on a busy disk.
scratch=$cache
if [ -w /dev/shm ] && [ "$(df -Pk /dev/shm | awk 'NR == 2 { print $4 }')" -gt 3000000 ]; then
  scratch=/dev/shm
fi
root=$scratch/flowblur-debian12-$(printf %s "$cache" | md5sum | cut -c1-8)
boot=$root-bootstrap

deb=$(scripts/package.sh "$build")
version=$(dpkg-deb -f "$deb" Version)
echo "== package $deb ($((SECONDS - started)) s)"

cleanup() { $sudo_cmd rm -rf "$root" "$boot"; }
trap cleanup EXIT

# As root inside the Debian root, with a clean environment; bounded in time.
in_root() {
  $sudo_cmd timeout "$1" chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin \
    HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive "${@:2}"
}

if [ ! -f "$base" ]; then
  echo "== debootstrap Debian 12 (once; kept in $base)"
  cleanup
  $sudo_cmd timeout 600 debootstrap --variant=minbase --include=man-db bookworm \
    "$boot" "$mirror" > "$cache/debootstrap.log" 2>&1 \
    || { tail -n 20 "$cache/debootstrap.log"; exit 1; }
  # A Debian 12 machine also has its updates and security suites.
  security=${mirror%/debian}/debian-security
  printf 'deb %s bookworm main\ndeb %s bookworm-updates main\ndeb %s bookworm-security main\n' \
    "$mirror" "$mirror" "$security" | $sudo_cmd tee "$boot/etc/apt/sources.list" >/dev/null
  $sudo_cmd cp /etc/resolv.conf "$boot/etc/resolv.conf"
  $sudo_cmd timeout 300 chroot "$boot" apt-get update -qq
  $sudo_cmd chroot "$boot" apt-get clean
  $sudo_cmd tar -C "$boot" -cf "$base.part" . && mv "$base.part" "$base"
  $sudo_cmd rm -rf "$boot"
fi

echo "== fresh Debian 12 root from $base ($((SECONDS - started)) s)"
cleanup
mkdir -p "$root"
$sudo_cmd tar -C "$root" -xf "$base"
$sudo_cmd cp /etc/resolv.conf "$root/etc/resolv.conf"
find "$cache/archives" -name '*.deb' -exec $sudo_cmd cp -t "$root/var/cache/apt/archives/" {} +
$sudo_cmd cp "$deb" "$root/tmp/"
debname=$(basename "$deb")
# A throwaway root needs no fsync after every file: dpkg unpacks several times faster.
unsafe_io=(-o Dpkg::Options::=--force-unsafe-io)

echo "== apt install ./$debname ($((SECONDS - started)) s)"
install_log=$cache/apt-install.log
if ! in_root 300 apt-get install -y -q --no-install-recommends "${unsafe_io[@]}" "/tmp/$debname" > "$install_log" 2>&1; then
  # The cached package lists may have gone stale on the mirror: refresh once and retry.
  in_root 300 apt-get update -qq
  in_root 300 apt-get install -y -q --no-install-recommends "${unsafe_io[@]}" "/tmp/$debname" > "$install_log" 2>&1 \
    || { tail -n 30 "$install_log"; exit 1; }
fi
grep -E '^(Setting up|Need to get)' "$install_log" | grep -E 'Need to get|flowblur' || true
find "$root/var/cache/apt/archives" -maxdepth 1 -name '*.deb' -exec cp -u -t "$cache/archives/" {} +

echo "== checks in the root ($((SECONDS - started)) s)"
passed=0 failed=0
check() {
  local name=$1
  shift
  if "$@"; then
    passed=$((passed + 1)); echo "ok   $name ($((SECONDS - started)) s)"
  else
    failed=$((failed + 1)); echo "FAIL $name"
  fi
}

version_is() { [ "$(in_root 20 flowblur --version)" = "flowblur $version" ]; }
check "flowblur --version says flowblur $version" version_is

demo_runs() {
  in_root 180 flowblur demo /tmp/demo --size 160 --length 3 -q || return 1
  local d=$root/tmp/demo
  [ -s "$d/contact-sheet.png" ] || return 1
  [ "$(find "$d/input" -type f | wc -l)" -eq 3 ] && [ "$(find "$d/output" -type f | wc -l)" -eq 3 ] \
    && [ "$(find "$d/flow" -type f | wc -l)" -ge 1 ]
}
check "flowblur demo writes input, output, flow and a contact sheet" demo_runs

man_renders() {
  local page text
  for page in $(in_root 20 sh -c 'ls /usr/share/man/man1/ | grep "^flowblur" | sed "s/\.1\.gz$//"'); do
    text=$(in_root 60 env MANPAGER=cat MANWIDTH=80 man "$page" 2>&1) || return 1
    if ! grep -q "^NAME" <<<"$text" || ! grep -q "^SYNOPSIS" <<<"$text" \
      || ! grep -q -- "--help" <<<"$text"; then
      echo "$text" | head -n 20
      return 1
    fi
    echo "     man $page: $(wc -l <<<"$text") lines"
  done
  in_root 60 env MANPAGER=cat man flowblur | grep -q -- "--amount"
}
check "man renders every flowblur page" man_renders

plugins_link() {
  [ -f "$root/usr/lib/flowblur/flowblur_spark.so" ] || return 1
  local so
  for so in /usr/lib/flowblur/flowblur_spark.so /usr/lib/frei0r-1/flowblur.so; do
    [ -f "$root$so" ] || continue
    ! in_root 20 ldd "$so" | grep -q "not found" || return 1
  done
}
check "the plug-ins are installed and their libraries resolve" plugins_link

completes() {
  # shellcheck disable=SC2016
  [ "$(in_root 20 bash -c 'source /usr/share/bash-completion/completions/flowblur
    COMP_WORDS=(flowblur demo --le); COMP_CWORD=2; _flowblur; echo "${COMPREPLY[*]}"')" = "--length" ]
}
check "bash completion offers the demo's options" completes

purges() {
  in_root 120 apt-get purge -y -q flowblur > "$cache/apt-purge.log" 2>&1 || return 1
  ! in_root 20 sh -c 'ls /usr/bin/flowblur /usr/lib/flowblur /usr/share/man/man1/flowblur.1.gz' 2>/dev/null
}
check "apt purge removes it" purges

echo "== done in $((SECONDS - started)) s"
echo "package: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
