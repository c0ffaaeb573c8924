#!/usr/bin/env bash
# Prints how much of the readers the fuzzers reach with the inputs that scripts/fuzz.sh has learned:
# for each reader, lines and branches of its functions that take stored bytes.
#
#   scripts/fuzz-coverage.sh [READER...]   all readers if none is named
set -euo pipefail
# shellcheck source=scripts/setup.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/setup.sh"

need_build_tools
need_fuzzing_tools
need llvm has_command llvm-cov
install_missing

build=build/fuzz-coverage
learned=build/fuzz/fuzz/learned
cmake --preset fuzz -B "$build" -DKELM_SANITIZE= \
    -DCMAKE_CXX_FLAGS='-fprofile-instr-generate -fcoverage-mapping' >/dev/null
cmake --build "$build" --target kelm-fuzzers >/dev/null

# The functions that read bytes and check them against the object.
reading='::(restore[A-Za-z]*|read[A-Z][A-Za-z]*|claimCandidate)\('

readers=("$@")
if ((! $#)); then
    for reader in "$build"/fuzz/corpus/*/; do readers+=("$(basename "$reader")"); done
fi
for reader in "${readers[@]}"; do
    program=$build/fuzz/kelm-fuzz-$reader
    sources=(kelm/*/"$reader".*)
    if [[ $reader == Checkpoint ]]; then sources+=(kelm/runtime/{KelmRuntime,PredictionBank}.*); fi
    inputs=("$build/fuzz/corpus/$reader")
    if [[ -d $learned/$reader ]]; then inputs+=("$learned/$reader"); fi
    LLVM_PROFILE_FILE=$program.profraw "$program" -runs=0 "${inputs[@]}" >/dev/null 2>&1
    llvm-profdata merge -o "$program.profdata" "$program.profraw"
    # Columns: name, then count, missed and share of regions, lines and branches.
    llvm-cov report -show-functions -Xdemangler c++filt -instr-profile "$program.profdata" \
        "$program" "${sources[@]}" |
        awk -v reader="$reader" -v reading="$reading" '
            NF < 10 || $0 !~ reading { next }
            { lines += $(NF - 5); lost_lines += $(NF - 4); branches += $(NF - 2)
              lost_branches += $(NF - 1) }
            END { printf "%-18s %4d of %4d lines, %4d of %4d branches\n", reader,
                         lines - lost_lines, lines, branches - lost_branches, branches }'
done
