#!/usr/bin/env bash
# Builds the fuzzers of the readers and runs each for SECONDS, two at a time. Status 1 if one finds
# a fault.
#
#   scripts/fuzz.sh SECONDS [READER...]   all readers if none is named
#
# Learned inputs stay in build/fuzz/fuzz/learned/READER for the next run. An input that shows a
# fault stays in build/fuzz/fuzz/found, together with the program's report. To show the fault again,
# run build/fuzz/fuzz/kelm-fuzz-READER FILE.
set -euo pipefail
# shellcheck source=scripts/setup.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/setup.sh"

[[ ${1:-} =~ ^[1-9][0-9]*$ ]] || {
    echo "usage: scripts/fuzz.sh SECONDS [READER...]" >&2
    exit 2
}
seconds=$1
shift

need_build_tools
need_fuzzing_tools
install_missing

cmake --preset fuzz
cmake --build --preset fuzz

folder=build/fuzz/fuzz
dictionary=fuzz/kelm.dict
readers=("$@")
if ((! $#)); then
    for reader in "$folder"/corpus/*/; do readers+=("$(basename "$reader")"); done
fi

# Runs one fuzzer. Prints the executions and the number of control-flow edges that they reached.
fuzz() {
    local reader=$1 report=$folder/found/$1.log status=0
    mkdir -p "$folder/learned/$reader"
    UBSAN_OPTIONS=print_stacktrace=1 "$folder/kelm-fuzz-$reader" \
        -max_total_time="$seconds" -timeout=10 -rss_limit_mb=1024 -malloc_limit_mb=32 \
        -max_len=16384 -dict="$dictionary" -artifact_prefix="$folder/found/$reader-" \
        "$folder/learned/$reader" "$folder/corpus/$reader" >"$report" 2>&1 || status=$?
    awk -v reader="$reader" '
        match($0, /^#[0-9]+/) { runs = substr($0, 2, RLENGTH - 1) }
        match($0, / cov: [0-9]+/) { edges = substr($0, RSTART + 6, RLENGTH - 6) }
        END { printf "%-18s %9d executions, %5d edges covered\n", reader, runs, edges }' "$report"
    if ((status)); then
        printf '%s: a fault, see %s\n' "$reader" "$report"
        grep -E 'does not hold|ERROR:|runtime error|Test unit written' "$report" || true
    fi
    return "$status"
}

mkdir -p "$folder/found"
status=0
running=0
for reader in "${readers[@]}"; do
    [[ -x $folder/kelm-fuzz-$reader ]] || {
        echo "there is no reader $reader" >&2
        exit 2
    }
    if ((running == 2)); then
        wait -n || status=1
        running=1
    fi
    fuzz "$reader" &
    running=$((running + 1))
done
while ((running)); do
    wait -n || status=1
    running=$((running - 1))
done
exit "$status"
