#!/bin/sh
# check_killed_run.sh PROGRAM FOLDER: a run that is killed behind its first checkpoint and started
# again leaves the output and the spike file of a run without interruption.
set -eu
rm -rf "$2"
mkdir -p "$2"
cd "$2"
straight=$("$1" straight 400 3000)
"$1" killed 400 3000 > first.txt &
while [ ! -e killed.kelm ]; do
    kill -0 $! # fails when the run has ended
    sleep 0.01
done
kill -9 $!
if wait $!; then
    echo "the run had ended before it was killed" >&2
    exit 1
fi
killed=$("$1" killed 400 3000)
[ "$straight" = "$killed" ]
cmp straight.npy killed.npy
echo "$straight"
