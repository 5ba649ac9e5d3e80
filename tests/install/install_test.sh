#!/bin/bash
# Installs the build twice: as a tree that is moved, for a project with the CMake package; and as Debian
# packages (where they cannot be made: the same tree), for compilers that ask pkg-config. Builds and runs
# small consumers against both.
# usage: install_test.sh BUILD_DIR C_COMPILER CXX_COMPILER [packages]
set -euo pipefail

build=$1 cc=$2 cxx=$3 packages=${4-}
source=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export TAMO_DEVICE_ROOT=$scratch/root
unset DESTDIR

fail() {
    echo "install_test: $*" >&2
    exit 1
}

run() {
    [ "$("$@")" = "consumer: ok" ] || fail "$1 did not do its work"
    readelf -n "$1" | grep -q 'Build ID' || fail "$1 has no build id: its handlers cannot travel"
}

# ---- a tree that is moved, and CMake ----

cmake --install "$build" --prefix "$scratch/first" >/dev/null
prefix=$scratch/moved
mv "$scratch/first" "$prefix"
grep -rIl "$scratch/first" "$prefix" && fail "these files hold the place of installation"
for file in bash-completion/completions/tamoctl zsh/vendor-completions/_tamoctl \
    fish/vendor_completions.d/tamoctl.fish man/man1/tamoctl.1 tamo_host/wireshark/tamo.lua; do
    [ -s "$prefix/share/$file" ] || fail "$file is not installed"
done
mkdir -m 700 "$TAMO_DEVICE_ROOT"
"$prefix/bin/tamoctl" set Test.key value || fail "tamoctl set does not run"
"$prefix/bin/tamoctl" cert list >/dev/null || fail "tamoctl cert does not run"
cmake -S "$source/consumer" -B "$scratch/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$scratch/cmake" >/dev/null
for consumer in c cpp testkit; do
    run "$scratch/cmake/consumer_$consumer"
done
[ -f "$TAMO_DEVICE_ROOT/system/lib64/libopenssl_engine.so" ] || fail "the engine is not found"

# ---- packages, and pkg-config ----

if [ -n "$packages" ]; then
    (cd "$build" && cpack -G DEB -B "$scratch") >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
    for package in "$scratch"/*.deb; do
        dpkg-deb -x "$package" "$scratch/unpacked"
    done
    prefix=$scratch/unpacked/usr
    [ "$(dpkg-deb -f "$scratch"/libconference-common-dev_*.deb Depends | tr , '\n' | grep -c '(= ')" = 2 ] ||
        fail "the development package does not ask for the two libraries"
    dpkg-deb -f "$scratch"/libtamo-host*.deb Depends | grep -q libsqlite3 ||
        fail "the host package does not say what it needs"
    "$prefix/bin/tamoctl" --version >/dev/null || fail "the packaged tamoctl does not run"
fi
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name conference_common.pc)")
export PKG_CONFIG_PATH
eval "flags=($(pkg-config --cflags --libs conference_common tamo_host))" # it escapes blanks
"$cc" -std=c11 "$source/consumer/consumer.c" "${flags[@]}" -o "$scratch/consumer_c"
eval "flags=($(pkg-config --cflags --libs conference_testkit))"
"$cxx" -std=c++17 "$source/consumer/testkit.cpp" "${flags[@]}" -o "$scratch/consumer_testkit"
LD_LIBRARY_PATH=$(dirname "$(find "$prefix" -name libtamo_host.so)")
export LD_LIBRARY_PATH
run "$scratch/consumer_c"
run "$scratch/consumer_testkit"
