#!/usr/bin/env bash
# Builds everything and runs the tests.
#
#   KELM_PRESET  the preset to build and test, "release" by default
set -euo pipefail
# shellcheck source=scripts/setup.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/setup.sh"

need_build_tools
install_missing

cmake --workflow --preset "${KELM_PRESET:-release}"
