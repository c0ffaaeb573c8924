#!/usr/bin/env bash
# Checks that our device code rounds every floating-point operation by itself. Needs no device.
#
#   scripts/check-ptx.sh BUILD [OPTION...]   compiles the device unit of the build folder BUILD to
#                                            PTX and checks it. BUILD must be configured with the
#                                            device library. nvcc gets the options too.
#   scripts/check-ptx.sh FILE.ptx            checks a PTX file
#
# Status 0: no forbidden operation. 1: our kernels contain an operation that may round differently
# from the host, or the text has none of our kernels. 2: the check could not run.
#
# The check covers functions whose names begin with our namespace. The kernels of the sort and scan
# library have our records only in their arguments, and they compute with integers only.
set -euo pipefail

fail() {
    printf '%s: %s\n' "${0##*/}" "$1" >&2
    exit 2
}

# Prints the build's compile command of the unit.
compile_command() {
    awk '
        /^ *"directory": / { directory = $0 }
        /^ *"command": / { command = $0 }
        /^ *"file": .*\/kelm\/cuda\/LookaheadCuda\.cu"/ {
            gsub(/^ *"[a-z]*": "|",? *$/, "", directory)
            gsub(/^ *"[a-z]*": "|",? *$/, "", command)
            gsub(/\\"/, "\"", command)
            gsub(/\\\\/, "\\", command)
            printf "cd \"%s\" && %s\n", directory, command
            exit
        }' "$1"
}

[[ $# -ge 1 ]] || fail 'give a build folder or a PTX file'
source=$1
shift
if [[ -d $source ]]; then
    commands=$source/compile_commands.json
    [[ -f $commands ]] || fail "no list of compile commands in $source"
    command=$(compile_command "$commands" | sed 's/ -o [^ ]*$//')
    [[ -n $command ]] || fail "$source does not build the device unit"
    folder=$(mktemp -d)
    trap 'rm -rf "$folder"' EXIT
    ptx=$folder/unit.ptx
    (eval "$command --ptx -o \"$ptx\" ${*@Q}") || fail 'the unit does not compile'
else
    ptx=$source
fi
[[ -s $ptx ]] || fail "no PTX in $ptx"

# With -fmad=false every operation has an explicit rounding (add.rn.f64). Without one, the assembler
# may still fuse separate operations.
awk '
    function report(what) {
        print "forbidden in " name ": " what
        ++found
    }
    /^[^\t ]*\.(entry|func)|^\.[a-z]+ \.(entry|func)/ {
        name = $0
        sub(/^.*\.(entry|func)[\t ]*(\([^)]*\)[\t ]*)?/, "", name)
        sub(/[^A-Za-z0-9_$].*/, "", name)
        ours = name ~ /^_ZZ*NK?7Lumenar/
        next
    }
    /^\{/ { inside = ours; if (inside) ++bodies }
    /^\}/ { inside = ours = 0 }
    !inside { next }
    {
        sub(/\/\/.*/, "")
        sub(/^[\t {]*(@!?%p[0-9]+[\t ]+)?/, "")
        if (call != "" || $1 ~ /^call/) {
            # A call extends over several lines up to its semicolon.
            call = call " " $0
            if (call !~ /;/) next
            if (call !~ /_ZZ*NK?7Lumenar/) report(call)
            call = ""
            next
        }
        if ($1 ~ /\.f(16|32|64)/) ++operations
        if ($1 ~ /^fma\.|\.approx|\.full|\.ftz|^mad\..*f(32|64)|^(add|sub|mul)\.(sat\.)?f(32|64)/) {
            report($1)
        }
    }
    END {
        if (bodies == 0) print "none of our kernels is in the text"
        else printf "%d of our functions, %d floating-point operations\n", bodies, operations
        exit bodies == 0 || found != 0
    }' "$ptx"
