# Checks the objects that contain vector instructions. They may not define a symbol that the linker
# could use in place of code for every processor, nor fuse a multiplication with an addition.
#
# cmake -DNM=... -DOBJDUMP=... -DOBJECTS=... -P check_objects.cmake

foreach(object IN LISTS OBJECTS)
    execute_process(COMMAND ${NM} --defined-only ${object} OUTPUT_VARIABLE symbols
        COMMAND_ERROR_IS_FATAL ANY)
    if(symbols MATCHES "[^\n]* [WVu] [^\n]*")
        message(FATAL_ERROR "${object} shares a definition: ${CMAKE_MATCH_0}")
    endif()
    execute_process(COMMAND ${OBJDUMP} -d ${object} OUTPUT_VARIABLE text
        COMMAND_ERROR_IS_FATAL ANY)
    if(NOT text MATCHES "vmulpd")
        message(FATAL_ERROR "${object} holds no vector text")
    endif()
    if(text MATCHES "[^\n]*vfn?m(add|sub)[^\n]*")
        message(FATAL_ERROR "${object} contracts: ${CMAKE_MATCH_0}")
    endif()
endforeach()
