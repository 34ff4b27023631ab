#!/usr/bin/env bash
# Installs the Debian packages that building and testing TAVIX needs, and
# any package named on the command line, when any of them is missing.
set -euo pipefail

packages=(g++ make cmake pkg-config iproute2 clang libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev
          libunwind-dev libdw-dev libssl-dev openssl "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
