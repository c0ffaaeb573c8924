# Fails unless README contains what PROGRAM prints as a block of text.

execute_process(COMMAND ${PROGRAM} OUTPUT_VARIABLE text COMMAND_ERROR_IS_FATAL ANY)
file(READ ${README} readme)
string(FIND "${readme}" "```\n${text}```" place)
if(place EQUAL -1)
    message(FATAL_ERROR "${README} does not show what the program prints:\n${text}")
endif()
