#!/usr/bin/env bash
# Installs the build into a fresh temporary prefix and uses it the way an
# integrator would (installed_tree.sh: pkg-config, every header alone, two
# programs built against the install and run).
# The programs link the build tree's simulated platform: the install holds
# one only when the tools are built.
# Exit status 77: skipped, the build installs outside any prefix.
#
# Inputs (environment): APPMGR_BUILD_DIR, APPMGR_PLATFORM_LIB, and those of
# installed_tree.sh.
set -euo pipefail

source "$(dirname "$0")/installed_tree.sh" appmgr-install
prefix=$work/prefix

quiet "$CMAKE" --install "$APPMGR_BUILD_DIR" --config "$APPMGR_CONFIG" --prefix "$prefix"
echo "installed into $prefix"
check_installed_tree "$prefix" "$prefix/$APPMGR_LIBDIR" "$prefix/$APPMGR_INCLUDEDIR/app-mgr" \
  "$APPMGR_PLATFORM_LIB"
