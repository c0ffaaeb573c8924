# Decides whether the device library is built, and for which architecture. Sets KELM_HAVE_CUDA and
# KELM_CUDA_SUMMARY.

set(KELM_HAVE_CUDA OFF)
set(KELM_CUDA_SUMMARY "off")
if(NOT KELM_CUDA STREQUAL "OFF")
    if(NOT DEFINED CMAKE_CUDA_ARCHITECTURES)
        set(CMAKE_CUDA_ARCHITECTURES 120-real CACHE STRING
            "Device architectures of the device library")
    endif()
    include(CheckLanguage)
    check_language(CUDA)
    if(CMAKE_CUDA_COMPILER)
        enable_language(CUDA)
        find_package(CUDAToolkit REQUIRED)
        set(KELM_HAVE_CUDA ON)
        set(KELM_CUDA_SUMMARY "on (${CMAKE_CUDA_ARCHITECTURES})")
    elseif(KELM_CUDA STREQUAL "ON")
        message(FATAL_ERROR "KELM_CUDA is ON, but no nvcc was found")
    else()
        message(STATUS "No nvcc was found: kelm_cuda is not built, and kelmgate reports no device")
    endif()
endif()
