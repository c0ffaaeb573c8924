# Runs PROGRAM with ARGUMENTS, separated by spaces, and compares its status and output with the
# outcome EXPECTED: "verdict" (every step passed), "no-device" or "either". If DEVICE is given, a
# verdict must name it. Any other output is an error.

cmake_minimum_required(VERSION 3.25)

separate_arguments(arguments UNIX_COMMAND "${ARGUMENTS}")
execute_process(COMMAND ${PROGRAM} ${arguments}
    RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors)

if(NOT DEFINED DEVICE)
    set(DEVICE "[^\n]+")
endif()
set(success "kelmgate [^\n]* runs=100 spikes=3240 windows=1229\n")
set(no_device "kelmgate: no CUDA device; the gate cannot be evaluated\n")
if(status EQUAL 0 AND errors STREQUAL ""
    AND output MATCHES "^kelmgate: device ${DEVICE}\n${success}$")
    set(outcome verdict)
elseif(status EQUAL 2 AND output STREQUAL "" AND errors STREQUAL no_device)
    set(outcome no-device)
else()
    set(outcome other)
endif()
if(NOT outcome STREQUAL EXPECTED AND (outcome STREQUAL other OR NOT EXPECTED STREQUAL either))
    message(FATAL_ERROR "${PROGRAM} ended with ${status}, which is not: ${EXPECTED}\n"
        "standard output:\n${output}\nstandard error:\n${errors}")
endif()
