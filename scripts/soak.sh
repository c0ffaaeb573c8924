#!/usr/bin/env bash
# Builds the soak and gives it generated models, each of which it runs in every way there is and
# compares to the bit; status 1 if two ways differ. It then prints the command that shows the
# difference again, and the smallest model that it could make of it.
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
