#!/bin/sh
# Installs the Debian packages that a build needs, and only those that are missing.
set -eu

packages="
cmake g++ make ninja-build pkg-config
juce-modules-source librapidxml-dev
libfftw3-dev libblas-dev libboost-dev libboost-thread-dev libhwy-dev
libsndfile1-dev libcli11-dev
libgtest-dev libgmock-dev libbenchmark-dev libzita-convolver-dev
"

missing=
for package in $packages; do
    state=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) || state=absent
    [ "$state" = installed ] || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

if ! command -v apt-get >/dev/null 2>&1; then
    echo "deps: this machine has no apt-get; please install what stands for:$missing" >&2
    exit 1
fi
as_root=
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null 2>&1; then
        echo "deps: neither root nor sudo; have an administrator run: apt-get install$missing" >&2
        exit 1
    fi
    as_root=sudo
fi

echo "deps: installing$missing"
# A list of packages that is out of date is no failure by itself: what counts is whether the install succeeds.
$as_root apt-get update -qq || echo "deps: 'apt-get update' failed, going on with the lists at hand" >&2
if ! $as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing >/dev/null
then
    echo "deps: apt-get could not install:$missing" >&2
    exit 1
fi
