#!/usr/bin/env bash
# Formats every source file that git tracks. With --check it changes nothing and fails if a file is
# not formatted.
set -euo pipefail
# shellcheck source=scripts/setup.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/setup.sh"

# Other versions of clang-format give other results.
need clang-format-14 has_command clang-format-14
install_missing

mode=(-i)
if [[ ${1:-} == --check ]]; then mode=(--dry-run -Werror); fi
git ls-files -z '*.h' '*.cpp' '*.cu' | xargs -0 clang-format-14 "${mode[@]}"
