# Runs PROGRAM twice, with SEED as its argument if given. Both runs must succeed and print the same
# text, and the text must match EXPECTED. With OTHER_SEED a third run must print another text.

function(run output)
    execute_process(COMMAND ${PROGRAM} ${ARGN} OUTPUT_VARIABLE text COMMAND_ERROR_IS_FATAL ANY)
    set(${output} "${text}" PARENT_SCOPE)
endfunction()

run(first ${SEED})
run(second ${SEED})
if(NOT first STREQUAL second)
    message(FATAL_ERROR "two runs differ:\n${first}\n${second}")
endif()
if(NOT first MATCHES "${EXPECTED}")
    message(FATAL_ERROR "'${EXPECTED}' is not in the output:\n${first}")
endif()
if(DEFINED OTHER_SEED)
    run(other ${OTHER_SEED})
    if(first STREQUAL other)
        message(FATAL_ERROR "the seeds ${SEED} and ${OTHER_SEED} give the same output:\n${first}")
    endif()
endif()
