# Fails unless README contains the exact text of the file EXAMPLE as a block of code.

file(READ ${README} readme)
file(READ ${EXAMPLE} example)
string(FIND "${readme}" "```cpp\n${example}```" place)
if(place EQUAL -1)
    message(FATAL_ERROR "${README} does not show ${EXAMPLE} as it is")
endif()
