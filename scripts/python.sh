#!/usr/bin/env bash
# Builds the Python package, runs examples/first_network.py with it, prints the digest and writes
# spikes.h5, run.kelm and raster.png to the build folder.
#
#   scripts/python.sh [BUILD_DIR]    BUILD_DIR is build/python without an argument
#
#   KELM_PRESET             the preset to build, "library" by default
#   KELM_PYTHON_EXECUTABLE  the interpreter; without it the system's where the first python3 lacks NumPy
set -euo pipefail
# shellcheck source=scripts/setup.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/setup.sh"
build=${1:-build/python}

need_library_tools
need_python_tools
install_missing

cmake --preset "${KELM_PRESET:-library}" -B "$build" -DKELM_PYTHON=ON \
    ${KELM_PYTHON_EXECUTABLE:+-DPython_EXECUTABLE="$KELM_PYTHON_EXECUTABLE"}
cmake --build "$build" --target kelm_python
python=$(sed -n 's/^KELM_PYTHON_INTERPRETER:INTERNAL=//p' "$build/CMakeCache.txt")
example=$PWD/examples/first_network.py
cd "$build/python"
MPLBACKEND=Agg PYTHONPATH=. "$python" "$example"
echo "raster: $PWD/raster.png"
