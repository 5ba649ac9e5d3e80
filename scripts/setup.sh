#!/usr/bin/env bash
# Installs the Debian packages that the project needs, those that are missing only.
#
#   scripts/setup.sh [--clang]
#
#   --clang   those of the 32-bit build, the fuzz targets and the checks too
set -euo pipefail

packages=(
    g++ make cmake ninja-build pkg-config ca-certificates
    libgtest-dev libssl-dev libsqlite3-dev libcjson-dev libtinyxml2-dev libmnl-dev libsmartcols-dev libncurses-dev iproute2
    tmux # a terminal for the test of tamoctl top
    tshark # shows what tamoctl capture wrote, in its test
    doxygen # the reference of the headers
    dpkg-dev file # Debian packages
    libevent-dev # the benchmark of the timers compares with it
)
clang_packages=(clang lld clang-format clang-tidy libclang-rt-14-dev qemu-user zsh fish)

case ${1-} in
    '') ;;
    --clang) packages+=("${clang_packages[@]}") ;;
    *)
        sed -n '2,/^set /{/^set /d;s/^# \{0,1\}//;p}' "${BASH_SOURCE[0]}"
        [[ $1 == -h || $1 == --help ]] && exit 0
        exit 2
        ;;
esac

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
    [[ $status == installed ]] || missing+=("$package")
done
if ((${#missing[@]} == 0)); then
    echo "setup: all ${#packages[@]} packages are there"
    exit 0
fi

as_root=()
if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
        echo "setup: these packages are missing: ${missing[*]}" >&2
        echo "setup: install them as root (apt-get install ...), or install sudo" >&2
        exit 1
    fi
    as_root=(sudo)
fi
if ! command -v apt-get >/dev/null; then
    echo "setup: this is no Debian; install what these packages hold: ${missing[*]}" >&2
    exit 1
fi

echo "setup: installing ${#missing[@]} packages: ${missing[*]}"
apt() { "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q "$@" </dev/null; }
# One source that cannot be reached is no reason to stop; a package that cannot be had is.
apt update || echo "setup: a package list could not be read; going on with the others"
apt install -y --no-install-recommends "${missing[@]}"
