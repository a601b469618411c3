#!/usr/bin/env bash
# Installs the Debian 12 packages the build needs, when any is missing.
set -euo pipefail
packages=(cmake ninja-build g++ pkg-config libcurl4-openssl-dev libxml2-dev libdvbpsi-dev zlib1g-dev
          libgtest-dev libgmock-dev binutils openssl)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}"
