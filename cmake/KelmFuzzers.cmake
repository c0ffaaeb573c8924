# Checks whether the fuzzers can be built, and instruments all code for them.

if(KELM_BUILD_FUZZERS)
    include(CheckCXXSourceCompiles)
    set(CMAKE_REQUIRED_FLAGS -fsanitize=fuzzer)
    check_cxx_source_compiles(
        "extern \"C\" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }"
        KELM_HAVE_LIBFUZZER)
    unset(CMAKE_REQUIRED_FLAGS)
    if(NOT KELM_HAVE_LIBFUZZER)
        message(FATAL_ERROR "KELM_BUILD_FUZZERS is ON, but ${CMAKE_CXX_COMPILER} does not link "
            "libFuzzer. Set CMAKE_CXX_COMPILER to clang++ and install its runtime libraries "
            "(Debian: libclang-rt-14-dev)")
    endif()
    target_compile_options(kelm_build_options INTERFACE
        $<$<COMPILE_LANGUAGE:CXX>:-fsanitize=fuzzer-no-link>)
    # Links the runtime that instrumented code calls into programs that are not fuzzers.
    target_link_options(kelm_build_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
