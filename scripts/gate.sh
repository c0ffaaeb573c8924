#!/usr/bin/env bash
# Builds the parity gate and runs it; the exit status is the verdict. Arguments go to the gate.
#
# The gate first runs on the emulated device, which needs only this machine's processor. If nvcc is
# found, the gate is also built with it and runs on the CUDA device, if there is one.
#
#   KELM_PRESET  the preset to build, "release" by default
#   KELM_CUDA    OFF skips the CUDA device
#   CUDAARCHS    the device's architecture, if it is not the default of the device library
set -euo pipefail
# shellcheck source=scripts/setup.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/setup.sh"

need_build_tools
install_missing

preset=${KELM_PRESET:-release}
device=OFF
if [[ -n $nvcc && ${KELM_CUDA:-} != OFF ]]; then device=ON; fi
cmake --preset "$preset" -DKELM_CUDA=$device \
    ${CUDAARCHS:+-DCMAKE_CUDA_ARCHITECTURES="$CUDAARCHS"}
cmake --build --preset "$preset" --target kelmgate-emulated
"build/$preset/gate/kelmgate-emulated" "$@"

if [[ ${KELM_CUDA:-} == OFF ]]; then exit 0; fi
if [[ -z $nvcc ]]; then
    echo 'no nvcc: the gate was not built for a CUDA device; the verdict is for the emulated device'
    exit 0
fi
cmake --build --preset "$preset" --target kelmgate
status=0
{ failure=$("build/$preset/gate/kelmgate" "$@" 2>&1 >&3) || status=$?; } 3>&1
if ((status == 2)); then
    echo 'no CUDA device: the verdict is for the emulated device'
    exit 0
fi
if [[ -n $failure ]]; then printf '%s\n' "$failure" >&2; fi
exit "$status"
