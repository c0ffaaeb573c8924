#!/usr/bin/env bash
# Builds the soak, which generates models, runs each in every way and compares all bits. If two ways
# differ, it prints the command that repeats the difference and the smallest model found, and the
# status is 1.
#
#   scripts/soak.sh MODELS [ARGUMENTS...]   arguments go to the soak, such as --first SEED
#
#   KELM_PRESET  the preset to build, "release" by default
set -euo pipefail
# shellcheck source=scripts/setup.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/setup.sh"

[[ ${1:-} =~ ^[1-9][0-9]*$ ]] || {
    echo "usage: scripts/soak.sh MODELS [ARGUMENTS...]" >&2
    exit 2
}

need_build_tools
install_missing

preset=${KELM_PRESET:-release}
cmake --preset "$preset"
cmake --build --preset "$preset" --target kelm-soak
"build/$preset/fuzz/kelm-soak" --models "$@"
