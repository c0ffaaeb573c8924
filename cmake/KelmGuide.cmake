# The target `guide`: the guide of the Python package as HTML, with its tutorials executed. A
# warning of Sphinx is an error.

if(NOT TARGET kelm_python)
    return()
endif()
execute_process(
    COMMAND ${Python_EXECUTABLE} -c "import sphinx, matplotlib.sphinxext.plot_directive"
    RESULT_VARIABLE sphinx_status OUTPUT_QUIET ERROR_QUIET)
if(NOT sphinx_status EQUAL 0)
    return()
endif()

# Made anew each time: Sphinx does not notice that the package has changed.
set(guide_dir ${PROJECT_BINARY_DIR}/guide)
add_custom_target(guide
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${guide_dir}
    COMMAND ${CMAKE_COMMAND} -E env PYTHONPATH=${PROJECT_BINARY_DIR}/python
        PYTHONDONTWRITEBYTECODE=1 MPLBACKEND=Agg
        ${Python_EXECUTABLE} -m sphinx -W --keep-going -q -d ${guide_dir}/doctrees
        ${PROJECT_SOURCE_DIR}/docs/guide ${guide_dir}/html
    COMMENT "Building the guide in guide/html/" VERBATIM)
add_dependencies(guide kelm_python kelm_python_files)
