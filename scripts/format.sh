#!/usr/bin/env bash
# Formats every source file that git knows. With --check it changes nothing and fails where it
# would have.
set -euo pipefail
# shellcheck source=scripts/setup.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/setup.sh"

# Other versions of clang-format set other white space.
need clang-format-14 has_command clang-format-14
install_missing

mode=(-i)
if [[ ${1:-} == --check ]]; then mode=(--dry-run -Werror); fi
git ls-files -z '*.h' '*.cpp' '*.cu' | xargs -0 clang-format-14 "${mode[@]}"
