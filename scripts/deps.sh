#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, only when some are missing.
set -euo pipefail
packages=(cmake ninja-build g++ libboost1.81-dev rapidjson-dev libgtest-dev libgmock-dev curl)
if [ "${TESSARD_SANITIZERS:-0}" = 1 ]; then packages+=(clang libclang-rt-14-dev); fi
# The demo reads the status file with jq.
if [ "${TESSARD_DEMO:-0}" = 1 ]; then packages+=(jq); fi
# The Debian package (scripts/package.sh), its check, and the alert rules' check.
if [ "${TESSARD_PACKAGING:-0}" = 1 ]; then packages+=(debhelper dpkg-dev lintian prometheus); fi
# The cgroup v2 guest test: a kernel to boot, qemu to boot it, a userland for the guest.
if [ "${TESSARD_GUEST:-0}" = 1 ]; then
    packages+=(qemu-system-x86 linux-image-amd64 busybox-static cpio attr)
fi
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
