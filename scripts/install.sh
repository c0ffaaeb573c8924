#!/usr/bin/env bash
# Builds the libraries alone and installs them with their CMake package.
#
#   scripts/install.sh [PREFIX]    PREFIX is /usr/local without an argument
#
#   KELM_CUDA  ON or AUTO also builds the device library, OFF (the default) does not
set -euo pipefail
prefix=$(realpath -m -- "${1:-/usr/local}")
# shellcheck source=scripts/setup.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/setup.sh"

need_library_tools
install_missing

cmake --preset library -DKELM_CUDA="${KELM_CUDA:-OFF}"
cmake --build --preset library
cmake --install build/library --prefix "$prefix"
echo "installed in $prefix"
