# Runs PROGRAM once in one process, and once in two processes with a checkpoint in FILE. Both runs
# must print the same last line.

function(run output)
    execute_process(COMMAND ${PROGRAM} ${ARGN} OUTPUT_VARIABLE text COMMAND_ERROR_IS_FATAL ANY)
    set(${output} "${text}" PARENT_SCOPE)
endfunction()

file(REMOVE ${FILE})
run(straight straight)
run(first first ${FILE})
run(second second ${FILE})
file(REMOVE ${FILE})
if(NOT straight MATCHES "[1-9][0-9]+ spikes, log hash")
    message(FATAL_ERROR "no spikes:\n${straight}")
endif()
if(NOT straight STREQUAL second)
    message(FATAL_ERROR "the resumed run differs:\n${straight}${second}")
endif()
