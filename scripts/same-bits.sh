#!/usr/bin/env bash
# Builds the library in one cell after the other, runs the golden and differential tests in each,
# and compares the digests of many runs with those of the first cell. Status 1 if a test fails, if a
# digest differs, or if a tool for a named cell is missing.
#
#   scripts/same-bits.sh [CELL...]   all cells that this machine can build if none is named
#
# A cell is one argument: a compiler and its flags ("g++ -O2 -march=x86-64-v3"), the same for
# aarch64 under qemu-user ("aarch64-g++ -O2"), or the folder of a finished build ("build/ci"), which
# only prints its digests.
#
#   KELM_TESTS  test programs to run, by folder; "core kernel network engine gate runtime cuda
#               lanes" by default
#   KELM_JOBS   parallel jobs of a build; Ninja's default if empty
set -euo pipefail
# shellcheck source=scripts/setup.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/setup.sh"

read -ra folders <<<"${KELM_TESTS:-core kernel network engine gate runtime cuda lanes}"
programs=("${folders[@]/%/-tests}")
programs=("${programs[@]/#/kelm-}")
output=build/same-bits
reference=''

# Whether this machine runs code for x86-64-v3, which has fused multiply-add.
has_v3() { grep -qw avx2 /proc/cpuinfo && grep -qw fma /proc/cpuinfo && grep -qw bmi2 /proc/cpuinfo; }

all_cells() {
    local compiler level
    for level in -O3 -O2 -O0; do
        for compiler in g++ clang++; do
            echo "$compiler $level"
            if has_v3; then echo "$compiler $level -march=x86-64-v3"; fi
        done
    done
    for level in -O3 -O2 -O0; do echo "aarch64-g++ $level"; done
    echo 'aarch64-clang++ -O2'
}

# Prints why a cell must be left out, or nothing. Status 1 if a tool is missing.
reason_against() {
    if [[ $1 == *x86-64-v3* ]] && ! has_v3; then
        echo 'this machine does not run code for x86-64-v3'
    elif [[ $1 == *clang++* ]] && ! has_command clang++; then
        echo 'there is no clang++'
        return 1
    elif [[ $1 == aarch64-* ]] && ! has_cross_tools; then
        echo 'there is no cross compiler for aarch64, qemu-aarch64-static or source of GoogleTest'
        return 1
    fi
}

# Builds GoogleTest from Debian's source package; Debian's library is for this processor only.
build_cross_googletest() {
    local folder=$output/googletest-aarch64
    [[ -e $folder/installed/lib/libgtest_main.a ]] && return
    cmake -S /usr/src/googletest -B "$folder" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/aarch64-linux-gnu.cmake" -DBUILD_GMOCK=OFF \
        -DCMAKE_INSTALL_PREFIX="$PWD/$folder/installed" -DCMAKE_INSTALL_LIBDIR=lib
    cmake --build "$folder" --target install
}

# build CELL FOLDER
build() {
    local compiler=${1%% *} options=(-DCMAKE_CXX_FLAGS_RELEASE="${1#* }")
    if [[ $compiler == aarch64-* ]]; then
        build_cross_googletest
        compiler=${compiler#aarch64-}
        if [[ $compiler == g++ ]]; then compiler=aarch64-linux-gnu-g++; fi
        options+=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/aarch64-linux-gnu.cmake" -DKELM_THREADS=OFF
            -DKELM_MPI=OFF -DGTest_ROOT="$PWD/$output/googletest-aarch64/installed")
    fi
    cmake -S . -B "$2" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER="$compiler" \
        -DKELM_CUDA=OFF -DKELM_WERROR=ON -DKELM_BUILD_BENCH=OFF -DKELM_BUILD_EXAMPLES=OFF \
        "${options[@]}"
    cmake --build "$2" ${KELM_JOBS:+-j"$KELM_JOBS"} --target kelm-digests "${programs[@]}"
}

# work CELL FOLDER: builds, runs the tests and writes the digests.
work() {
    local emulator=() program
    if [[ $1 == aarch64-* ]]; then emulator=(qemu-aarch64-static); fi
    if [[ $1 != "$2" ]]; then
        build "$1" "$2"
        for program in "${programs[@]}"; do
            time "${emulator[@]}" "$2/tests/$program" --gtest_brief=1
        done
    fi
    "${emulator[@]}" "$2/tests/kelm-digests" >"$digests"
}

# Runs a cell and prints one line with its tests and the comparison of its digests. Sets `status`.
check() {
    local cell=$1 name=${1//[ \/]/_} reason start=$SECONDS failed='' verdict='the first' lacking=''
    reason=$(reason_against "$cell") || lacking=yes
    if [[ -n $reason ]]; then
        printf '%-32s left out: %s\n' "$cell" "$reason"
        if [[ -n $named && -n $lacking ]]; then status=1; fi
        return
    fi
    local folder=$output/$name digests=$output/$name.digests log=$output/$name.log
    if [[ -d $cell ]]; then folder=$cell; fi
    # As a job, because bash ignores "set -e" in a condition.
    work "$cell" "$folder" >"$log" 2>&1 &
    wait $! || failed=yes
    if [[ -n $failed ]]; then
        status=1
        printf '%-32s failed, see %s\n' "$cell" "$log"
        grep -E 'error:|Failure|FAILED' "$log" | head -n 20 || true
        return
    fi
    if [[ -z $reference ]]; then
        reference=$digests
    elif cmp -s "$reference" "$digests"; then
        verdict='the same'
    else
        status=1
        verdict="$(diff "$reference" "$digests" | grep -c '^>') of them differ"
    fi
    printf '%-32s %4d tests, %d digest lines: %s; %d s\n' "$cell" \
        "$(awk '/^\[==========\] .* ran\./ { sum += $2 } END { print sum + 0 }' "$log")" \
        "$(wc -l <"$digests")" "$verdict" $((SECONDS - start))
    if [[ $verdict == *differ ]]; then diff "$reference" "$digests" | head -n 20 || true; fi
}

cells=("$@")
named=${1:-}
if [[ -z $named ]]; then mapfile -t cells < <(all_cells); fi
need_build_tools
if [[ ${cells[*]} == *clang++* ]] && can_install; then need clang has_command clang++; fi
if [[ ${cells[*]} == *aarch64* ]] && can_install; then need_cross_tools; fi
install_missing
mkdir -p "$output"

status=0
for cell in "${cells[@]}"; do check "$cell"; done
exit "$status"
