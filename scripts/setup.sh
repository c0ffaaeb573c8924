# shellcheck shell=bash
# Sourced by the scripts here and by .ci/run. Changes to the top of the repository and provides the
# packages that a build needs. Root installs missing packages on a system with apt-get. Otherwise the
# script names them and ends with status 1.
set -euo pipefail

CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."

has_command() { command -v -- "$1" >/dev/null; }
has_header() { c++ -E -x c++ -include "$1" /dev/null >/dev/null 2>&1; }

missing_packages=()

# need PACKAGE PROBE...: marks a Debian package as missing if its probe fails.
need() {
    "${@:2}" || missing_packages+=("$1")
}

can_install() { ((EUID == 0)) && has_command apt-get; }

install_missing() {
    ((${#missing_packages[@]})) || return 0
    if ! can_install; then
        printf 'missing: %s\n' "${missing_packages[*]}"
        echo 'These are Debian packages. This script installs them when it runs as root on a' \
            'system with apt-get. Please install them first.'
        exit 1
    fi >&2
    echo "installing: ${missing_packages[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get -qq update
    apt-get -qq -o Dpkg::Use-Pty=0 install --no-install-recommends "${missing_packages[@]}" \
        </dev/null >/dev/null
    missing_packages=()
}

# The packages that the libraries need. nvcc has no package.
need_library_tools() {
    need cmake has_command cmake
    need ninja-build has_command ninja
    need g++ has_command g++
}

# The packages that the presets need.
need_build_tools() {
    need_library_tools
    need libgtest-dev has_header gtest/gtest.h
}

# Debian's packages belong to the system's Python, which need not be the first python3.
has_module() {
    local python=/usr/bin/python3
    [[ -x $python ]] || python=python3
    "$python" -c "import $1" 2>/dev/null
}

has_pybind11() {
    [[ -e /usr/lib/cmake/pybind11/pybind11Config.cmake ]] || python3 -m pybind11 --cmakedir \
        >/dev/null 2>&1
}

has_python_headers() {
    local headers
    headers=$(/usr/bin/python3 -c 'import sysconfig; print(sysconfig.get_path("include"))') &&
        [[ -e $headers/Python.h ]]
}

# The packages that the Python package needs and those that its example uses.
need_python_tools() {
    need python3-dev has_python_headers
    need pybind11-dev has_pybind11
    need python3-numpy has_module numpy
    need python3-h5py has_module h5py
    need python3-matplotlib has_module matplotlib
    need python3-tqdm has_module tqdm
}

has_libfuzzer() {
    local runtime
    runtime=$(clang++ -print-runtime-dir 2>/dev/null) && compgen -G "$runtime/libclang_rt.fuzzer*.a" \
        >/dev/null
}

need_fuzzing_tools() {
    need clang has_command clang++
    need libclang-rt-14-dev has_libfuzzer
}

has_cross_tools() {
    has_command aarch64-linux-gnu-g++ && has_command qemu-aarch64-static &&
        [[ -e /usr/src/googletest/CMakeLists.txt ]]
}

# The packages that build for aarch64 and run the result.
need_cross_tools() {
    need g++-aarch64-linux-gnu has_command aarch64-linux-gnu-g++
    need qemu-user-static has_command qemu-aarch64-static
    need googletest test -e /usr/src/googletest/CMakeLists.txt
}

# Prints the path of nvcc, or nothing. Toolkits do not add themselves to the PATH.
find_nvcc() {
    local candidate
    for candidate in "${CUDACXX:-}" nvcc "${CUDA_HOME:+$CUDA_HOME/bin/nvcc}" \
        "${CUDA_PATH:+$CUDA_PATH/bin/nvcc}" /usr/local/cuda/bin/nvcc; do
        if [[ -n $candidate ]] && command -v -- "$candidate"; then return; fi
    done
}

# Empty without nvcc. CMake reads CUDACXX.
nvcc=$(find_nvcc)
if [[ -n $nvcc ]]; then export CUDACXX=$nvcc; fi
