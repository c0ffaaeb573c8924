# Installs the build folder BUILD under a prefix in SCRATCH. Then configures, builds and runs the
# project in SOURCE against it, with the compiler COMPILER and, if given, the sanitizers SANITIZE.
# THREADS, MPI and CUDA say whether the package has the threaded backend, the ranks on MPI and the
# device library. TBB_DIR is where the build has found oneTBB, and MPI_COMPILER its MPI.

cmake_minimum_required(VERSION 3.25)

file(REMOVE_RECURSE ${SCRATCH})
set(prefix ${SCRATCH}/prefix)
set(user ${SCRATCH}/user)
if(SANITIZE)
    set(flags -fsanitize=${SANITIZE})
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix} --config ${CONFIG}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE} -B ${user} -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=${CONFIG} -DCMAKE_CXX_COMPILER=${COMPILER}
    -DCMAKE_CXX_FLAGS=${flags} -DTHREADS=${THREADS} -DTBB_DIR=${TBB_DIR} -DMPI=${MPI}
    -DMPI_CXX_COMPILER=${MPI_COMPILER} -DCUDA=${CUDA}
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
    COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_COMMAND} --build ${user} --config ${CONFIG}
    COMMAND_ERROR_IS_FATAL ANY)
set(programs user backends_user shared_user)
if(THREADS)
    list(APPEND programs threads_user)
endif()
if(CUDA)
    list(APPEND programs cuda_user)
endif()
if(MPI)
    list(APPEND programs mpi_user)
endif()
foreach(name ${programs})
    if(name STREQUAL mpi_user)
        # The libraries of an MPI keep memory at the end.
        set(ENV{ASAN_OPTIONS} detect_leaks=0)
    endif()
    find_program(program_${name} ${name} PATHS ${user} ${user}/${CONFIG} NO_DEFAULT_PATH REQUIRED)
    execute_process(COMMAND ${program_${name}} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
