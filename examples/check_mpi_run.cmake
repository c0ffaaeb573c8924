# Runs kelm-mpi-run on several numbers of processes and threads. All must print the same line, also
# after a checkpoint of three processes that two continue.
#
# LAUNCH: the launcher up to the number of processes; PROGRAM: kelm-mpi-run; FILE: a checkpoint.
function(run variable ranks)
    execute_process(COMMAND ${LAUNCH} ${ranks} ${PREFLAGS} ${PROGRAM} --neurons 600 --inputs 40
        ${ARGN} OUTPUT_VARIABLE output ERROR_VARIABLE error RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "${ranks} processes with ${ARGN} ended with ${status}: ${output}${error}")
    endif()
    set(${variable} "${output}" PARENT_SCOPE)
endfunction()

run(expected 1 --until 60)
if(NOT expected MATCHES "^[1-9][0-9]* spikes, digest [0-9a-f]+\n$")
    message(FATAL_ERROR "one process printed '${expected}'")
endif()
run(threads 2 --until 60 --threads 2)
run(half 3 --until 30 --checkpoint ${FILE})
run(resumed 2 --until 60 --resume ${FILE})
foreach(output IN ITEMS "${threads}" "${resumed}")
    if(NOT output STREQUAL expected)
        message(FATAL_ERROR "one process printed '${expected}', another number '${output}'")
    endif()
endforeach()

# All processes end when one cannot read the file.
execute_process(COMMAND ${LAUNCH} 2 ${PREFLAGS} ${PROGRAM} --neurons 600 --resume ${FILE}.missing
    ERROR_VARIABLE error OUTPUT_QUIET RESULT_VARIABLE status)
if(status EQUAL 0 OR NOT error MATCHES "missing")
    message(FATAL_ERROR "a missing checkpoint gave ${status}: ${error}")
endif()
