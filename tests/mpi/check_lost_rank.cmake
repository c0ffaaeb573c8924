# Runs JOB, which loses a rank after all ranks have met and says so in FILE. The job must end by
# itself with a status other than 0.

cmake_minimum_required(VERSION 3.25)

file(WRITE ${FILE} "")
execute_process(COMMAND ${JOB} ${FILE} TIMEOUT 60 RESULT_VARIABLE status)
file(READ ${FILE} story)
if(status MATCHES "timeout")
    message(FATAL_ERROR "the job did not end")
elseif(status EQUAL 0)
    message(FATAL_ERROR "the job ended with status 0")
elseif(NOT story STREQUAL "met")
    message(FATAL_ERROR "the ranks: '${story}'")
endif()
