#!/usr/bin/env bash
# Builds the Debian package with debhelper, in a copy of the tracked sources so the tree
# stays clean, and puts it (with its .buildinfo and .changes) into OUT_DIR (default build/deb).
set -euo pipefail
cd "$(dirname "$0")/.."
TESSARD_PACKAGING=1 scripts/deps.sh
out=$(realpath -m "${OUT_DIR:-build/deb}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/src" "$out"
git ls-files -z | xargs -0 cp --parents -t "$work/src"
(cd "$work/src" && DEB_BUILD_OPTIONS="parallel=${JOBS:-2}" dpkg-buildpackage -b -us -uc >"$work/build.log" 2>&1) ||
    { tail -n 40 "$work/build.log" >&2; exit 1; }
cp "$work"/*.deb "$work"/*.buildinfo "$work"/*.changes "$out/"
ls "$out"/tessard_*.deb
