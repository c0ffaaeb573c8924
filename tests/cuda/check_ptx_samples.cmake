# Tests the script CHECK, which finds operations that round otherwise than on the host. Gives it
# samples of device text with one statement each and compares its exit status. Writes to SCRATCH.

cmake_minimum_required(VERSION 3.25)

set(ours "_ZN7Lumenar4Core4Kelm12_GLOBAL__N_112windowKernelEPKNS1_10WindowWorkE")
set(library "_ZN3cub6detail10merge_sortIPN7Lumenar4Core4Kelm12ShardArrivalEEvT_")

# Expects the exit status `status` for a function with the head `head` and the body `statement`.
function(expect status head statement)
    set(sample ${SCRATCH}/sample.ptx)
    file(WRITE ${sample} ".version 9.0
.target sm_120
.address_size 64
// fma.rn.f64 in a comment is none
${head}(
\t.param .u64 ${ours}_param_0
)
.maxntid 128
{
\t.reg .f64 \t%fd<4>;
${statement}
\tret;

}
")
    execute_process(COMMAND ${CHECK} ${sample} RESULT_VARIABLE result OUTPUT_VARIABLE output)
    if(NOT result EQUAL status)
        message(SEND_ERROR "status ${result} instead of ${status} for ${head}:\n"
            "${statement}\n${output}")
    endif()
endfunction()

foreach(statement
        "\tadd.rn.f64 %fd1, %fd2, %fd3;"
        "\tdiv.rn.f64 %fd1, %fd2, %fd3; // not fma.rn.f64"
        "\tmad.lo.s64 %rd1, %rd2, %rd3, %rd4;"
        "\tmul.wide.u32 %rd1, %r1, 8;"
        "\tcvt.rn.f64.s64 %fd1, %rd1;"
        "\tcall.uni (retval0), \n\t_ZN7Lumenar4Core4Kelm6Kernel9kernelExpEd, \n\t(\n\tparam0\n\t);")
    expect(0 ".entry ${ours}" "${statement}")
endforeach()

foreach(statement
        "\tfma.rn.f64 %fd1, %fd2, %fd3, %fd0;"
        "\t@%p1 fma.rn.f32 %f1, %f2, %f3, %f0;"
        "\t@!%p12 mad.rn.f64 %fd1, %fd2, %fd3, %fd0;"
        "\tadd.f64 %fd1, %fd2, %fd3;"
        "\tmul.ftz.f32 %f1, %f2, %f3;"
        "\trcp.approx.ftz.f64 %fd1, %fd2;"
        "\tex2.approx.f32 %f1, %f2;"
        "\tdiv.full.f32 %f1, %f2, %f3;"
        "\tcall.uni (retval0), \n\t__internal_exp_slowpath, \n\t(\n\tparam0\n\t);")
    expect(1 ".entry ${ours}" "${statement}")
    expect(1 ".visible .entry ${ours}" "${statement}")
    expect(1 ".weak .func  (.param .b64 func_retval0) ${ours}" "${statement}")
endforeach()

# The check ignores the library's kernels, and fails on text that has none of ours.
expect(1 ".visible .entry ${library}" "\tadd.rn.f64 %fd1, %fd2, %fd3;")
file(WRITE ${SCRATCH}/both.ptx ".visible .entry ${library}(\n)\n{\n\tfma.rn.f64 %fd1, %fd2, %fd3;\n}
.entry ${ours}(\n)\n{\n\tadd.rn.f64 %fd1, %fd2, %fd3;\n}\n")
execute_process(COMMAND ${CHECK} ${SCRATCH}/both.ptx COMMAND_ERROR_IS_FATAL ANY)

foreach(missing ${SCRATCH}/missing.ptx ${SCRATCH})
    execute_process(COMMAND ${CHECK} ${missing} RESULT_VARIABLE result ERROR_QUIET)
    if(NOT result EQUAL 2)
        message(SEND_ERROR "status ${result} instead of 2 for ${missing}, which holds no text")
    endif()
endforeach()
