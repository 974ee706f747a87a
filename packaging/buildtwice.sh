#!/bin/sh
# Run by packaging/package as root of a bare system: builds the package from /sources twice, holds one against the other,
# lints it, and puts it into /packages.
set -eu

# build FOLDER UMASK
build()
(
    mkdir -p "$1"
    tar -C "$1" -xf /sources
    umask "$2"
    cd "$1"
    cmake --preset release -DBUILD_TESTING=OFF
    cmake --build --preset release --target package
)

build /one 022
build /an/other 077
mkdir /packages
cp /one/build/release/*.deb /packages
for package in /packages/*.deb; do
    cmp "$package" "/an/other/build/release/${package##*/}"
    sha256sum "$package"
    lintian --fail-on error,warning "$package"
done
