# Decides whether the ranks on MPI are built. Sets KELM_HAVE_MPI and KELM_MPI_SUMMARY.

set(KELM_HAVE_MPI OFF)
set(KELM_MPI_SUMMARY "off")
if(NOT KELM_MPI STREQUAL "OFF")
    # Without MPI's C++ interface, which is no longer in the standard.
    set(MPI_CXX_SKIP_MPICXX ON)
    find_package(MPI 3.0 QUIET COMPONENTS CXX)
    if(MPI_CXX_FOUND)
        set(KELM_HAVE_MPI ON)
        set(KELM_MPI_SUMMARY "on (MPI ${MPI_CXX_VERSION})")
    elseif(KELM_MPI STREQUAL "ON")
        message(FATAL_ERROR "KELM_MPI is ON, but no MPI 3.0 or later was found")
    else()
        message(STATUS "No MPI was found: kelm_mpi is not built")
    endif()
endif()

# Of jobs that tests start. Open MPI must start as root, as in a container, and more ranks than there
# are processors. The libraries of an MPI keep memory at the end, which AddressSanitizer would report.
string(JOIN ";" KELM_MPI_ENVIRONMENT OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1
    OMPI_MCA_rmaps_base_oversubscribe=1 PRTE_MCA_rmaps_default_mapping_policy=:oversubscribe
    ASAN_OPTIONS=detect_leaks=0)
