#!/usr/bin/env bash
# Installs what the build, the tests and the benchmarks need, when any of
# it is missing: the Debian 12 packages (clang and its runtimes build the
# fuzz targets; dpkg-dev, fakeroot and file make and check the build's own
# Debian packages; libbenchmark-dev builds bench/), then the npm packages of
# the real browser
# (tools/web-browser) as pinned in its package-lock.json. Browsers come
# from Debian's chromium package only; nothing downloads one.
set -euo pipefail
cd "$(dirname "$0")/.."
packages=(cmake ninja-build g++ pkg-config libcurl4-openssl-dev libxml2-dev
          libdvbpsi-dev zlib1g-dev
          libgtest-dev libgmock-dev libbenchmark-dev binutils openssl
          clang libclang-rt-dev
          dpkg-dev fakeroot file
          chromium nodejs php-cli php-xml)
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
updated=no
apt_install() {
  if [ "$updated" = no ]; then
    "${sudo_cmd[@]}" apt-get update -qq
    updated=yes
  fi
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "$@"
}

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  apt_install "${missing[@]}"
fi
# Some package sources ship npm inside nodejs and conflict with Debian's
# npm package: take that one only when the command is still missing.
if ! command -v npm >/dev/null 2>&1; then
  echo "installing: npm"
  apt_install npm
fi

# The browser's npm packages, exactly as locked; again only when the
# installed tree does not match the lock file.
web=tools/web-browser
if ! cmp -s "$web/package-lock.json" "$web/node_modules/.package-lock.json.installed" 2>/dev/null; then
  echo "installing the npm packages of $web (npm ci)"
  (cd "$web" && npm ci --no-audit --no-fund --loglevel=error)
  cp "$web/package-lock.json" "$web/node_modules/.package-lock.json.installed"
fi
