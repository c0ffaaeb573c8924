# The target `docs`: the reference of the installed headers, and the pages of docs/, as HTML. A
# warning of Doxygen is an error.

if(CMAKE_VERSION VERSION_GREATER_EQUAL 3.27)
    find_package(Doxygen 1.9 QUIET)
else()
    find_package(Doxygen QUIET)
endif()
if(NOT DOXYGEN_FOUND)
    return()
endif()

set(DOXYGEN_PROJECT_BRIEF "${PROJECT_DESCRIPTION}")
set(DOXYGEN_USE_MDFILE_AS_MAINPAGE ${PROJECT_SOURCE_DIR}/README.md)
set(DOXYGEN_STRIP_FROM_PATH ${PROJECT_SOURCE_DIR})
set(DOXYGEN_STRIP_FROM_INC_PATH ${PROJECT_SOURCE_DIR})
set(DOXYGEN_JAVADOC_AUTOBRIEF YES)
# Docstrings leave out what is evident from a signature.
set(DOXYGEN_EXTRACT_ALL YES)
set(DOXYGEN_WARN_NO_PARAMDOC NO)
set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)
set(DOXYGEN_HAVE_DOT NO)
set(DOXYGEN_MACRO_EXPANSION YES)
set(DOXYGEN_EXPAND_ONLY_PREDEF YES)
set(DOXYGEN_PREDEFINED KELM_HD=)

set(pages README.md CHANGELOG.md bench/README.md docs/architecture.md docs/determinism.md
    docs/model.md docs/python.md docs/reliability.md docs/scale.md)
set(headers)
foreach(library kelm kelm_lanes kelm_threads kelm_mpi kelm_cuda kelm_backends)
    if(TARGET ${library})
        get_target_property(of_library ${library} HEADER_SET)
        list(APPEND headers ${of_library})
    endif()
endforeach()
doxygen_add_docs(docs ${pages} ${headers}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} COMMENT "Building the reference in html/")
