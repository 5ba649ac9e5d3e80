#!/bin/bash
# Makes the Debian packages, unpacks them, and builds and runs a consumer against what they hold.
# usage: packages_test.sh BUILD_DIR C_COMPILER
set -euo pipefail

build=$1 cc=$2
source=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export TAMO_DEVICE_ROOT=$scratch/root

fail() {
    echo "packages_test: $*" >&2
    exit 1
}

cd "$build"
cpack -G DEB -B "$scratch" >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
for package in "$scratch"/*.deb; do
    dpkg-deb -x "$package" "$scratch/unpacked"
done
usr=$scratch/unpacked/usr
export LD_LIBRARY_PATH=$usr/lib
[ "$(dpkg-deb -f "$scratch"/libconference-common-dev_*.deb Depends | tr , '\n' | grep -c '(= ')" = 2 ] ||
    fail "the development package does not ask for the two libraries"
dpkg-deb -f "$scratch"/libtamo-host*.deb Depends | grep -q libsqlite3 ||
    fail "the host package does not say what it needs"
LD_LIBRARY_PATH= "$usr/bin/tamoctl" --version >/dev/null || fail "tamoctl does not run"
export PKG_CONFIG_PATH=$usr/lib/pkgconfig
read -ra flags <<<"$(pkg-config --cflags --libs conference_common tamo_host)"
"$cc" -std=c11 "$source/consumer/consumer.c" "${flags[@]}" -o "$scratch/consumer"
[ "$("$scratch/consumer")" = "consumer: ok" ] || fail "the consumer did not do its work"
