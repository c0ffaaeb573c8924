#!/usr/bin/env bash
# Checks that our device code rounds every floating-point operation by itself, without a device.
#
#   scripts/check-ptx.sh BUILD [NVCC OPTION...]   compiles the device unit of a build folder that was
#                                                 configured with the device library to PTX, with the
#                                                 options of that build and the ones given here
#   scripts/check-ptx.sh FILE.ptx                 takes PTX as it is
#
# Status 0: nothing was found. 1: our kernels hold an operation that may round otherwise than the
# host does, or there are none of them. 2: the check could not be made.
#
# Looked at is what carries our namespace in front of its name. The kernels of the sort and scan
# library carry our records only in their arguments; they compute with integers alone.
set -euo pipefail

fail() {
    printf '%s: %s\n' "${0##*/}" "$1" >&2
    exit 2
}

# The command that the build compiles the unit with, from its list of commands.
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

[[ $# -ge 1 ]] || fail 'names no build folder and no PTX file'
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

# -fmad=false makes the compiler write a rounding into every operation (add.rn.f64); without one the
# assembler behind it may still fuse what stands apart here.
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
            # A call spreads over lines up to its semicolon.
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
