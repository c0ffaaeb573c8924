# Runs PROGRAM with ARGUMENTS and compares what it leaves behind with the outcomes that EXPECTED
# allows: "verdict" (every step passed), "no-device" or both. DEVICE is the name that a verdict has
# to give. Nothing may be written beyond the lines of the outcome.

cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${PROGRAM} ${ARGUMENTS}
    RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors)

set(success "kelmgate [^\n]* runs=100 spikes=3240 windows=1229\n")
if(status EQUAL 0 AND "verdict" IN_LIST EXPECTED
    AND output MATCHES "^kelmgate: device ${DEVICE}\n${success}$" AND errors STREQUAL "")
    return()
endif()
set(no_device "kelmgate: no CUDA device; the gate cannot be evaluated\n")
if(status EQUAL 2 AND "no-device" IN_LIST EXPECTED
    AND output STREQUAL "" AND errors STREQUAL no_device)
    return()
endif()
message(FATAL_ERROR "${PROGRAM} ended with ${status}, which is not: ${EXPECTED}\n"
    "standard output:\n${output}\nstandard error:\n${errors}")
