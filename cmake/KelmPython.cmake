# Decides whether the Python package is built, and for which interpreter. Sets KELM_HAVE_PYTHON and
# KELM_PYTHON_SUMMARY.

set(KELM_HAVE_PYTHON OFF)
set(KELM_PYTHON_SUMMARY "off")

# An interpreter with NumPy. Without an explicit Python_EXECUTABLE the system's Python is second
# choice, because a distribution's modules belong to it, and not to the first python3 of the PATH.
macro(kelm_find_python)
    set(python_components Interpreter Development.Module NumPy)
    if(NOT DEFINED Python_EXECUTABLE)
        find_program(KELM_FIRST_PYTHON NAMES python3)
        mark_as_advanced(KELM_FIRST_PYTHON)
        foreach(candidate IN ITEMS ${KELM_FIRST_PYTHON} /usr/bin/python3)
            execute_process(COMMAND ${candidate} -c "import numpy"
                RESULT_VARIABLE status OUTPUT_QUIET ERROR_QUIET)
            if(status EQUAL 0)
                set(Python_EXECUTABLE ${candidate})
                break()
            endif()
        endforeach()
    endif()
    find_package(Python 3.9 QUIET COMPONENTS ${python_components})
    # Without a Python, pybind11 would look for one itself and fail.
    if(Python_FOUND)
        # A pybind11 that pip has installed names its folder.
        execute_process(COMMAND ${Python_EXECUTABLE} -m pybind11 --cmakedir
            OUTPUT_VARIABLE pybind11_hint OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
        find_package(pybind11 2.10 CONFIG QUIET HINTS ${pybind11_hint})
    endif()
endmacro()

if(NOT KELM_PYTHON STREQUAL "OFF")
    kelm_find_python()
    if(Python_FOUND AND pybind11_FOUND)
        set(KELM_HAVE_PYTHON ON)
        set(KELM_PYTHON_SUMMARY "on (Python ${Python_VERSION})")
        set(KELM_PYTHON_INTERPRETER ${Python_EXECUTABLE} CACHE INTERNAL "For scripts/python.sh")
    elseif(KELM_PYTHON STREQUAL "ON")
        message(FATAL_ERROR "KELM_PYTHON is ON, but no pybind11 2.10 or no Python 3.9 with NumPy "
            "was found; Python_EXECUTABLE selects an interpreter")
    else()
        message(STATUS "No pybind11 or no Python with NumPy was found: the Python package is not "
            "built")
    endif()
endif()
