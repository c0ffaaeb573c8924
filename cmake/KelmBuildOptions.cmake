# Options of all targets of this build. They are not exported.

add_library(kelm_build_options INTERFACE)
set(host_code $<COMPILE_LANG_AND_ID:CXX,GNU,Clang,AppleClang>)
target_compile_options(kelm_build_options INTERFACE
    $<${host_code}:-Wall -Wextra -Wpedantic -Wconversion -Wshadow>
    $<$<AND:${host_code},$<BOOL:${KELM_WERROR}>>:-Werror>
    # The installed libraries are position-independent. Without this option g++ would not inline
    # their functions, because a program could replace them.
    $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fno-semantic-interposition>)
if(KELM_SANITIZE)
    target_compile_options(kelm_build_options INTERFACE
        $<${host_code}:-fsanitize=${KELM_SANITIZE} -fno-sanitize-recover=all
        -fno-omit-frame-pointer>)
    target_link_options(kelm_build_options INTERFACE -fsanitize=${KELM_SANITIZE})
endif()
