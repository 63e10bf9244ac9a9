# Each object built for a wider instruction set must define its packet walk
# and set-up alone, and nothing weak: an inline function compiled there could become
# the copy the linker keeps for the whole library, and run AVX2 or AVX-512
# code on processors without it.
set(checked 0)
foreach(o ${OBJECTS})
  if(o MATCHES "ray_packet(_avx512)?\\.cpp\\.o(bj)?$")
    execute_process(COMMAND ${NM} -g --defined-only ${o} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "${NM} failed on ${o}")
    endif()
    string(STRIP "${out}" out)
    string(REPLACE "\n" ";" lines "${out}")
    list(LENGTH lines n)
    if(NOT n EQUAL 2 OR NOT out MATCHES " T [^\n]*Ray_Packet_Setup" OR NOT out MATCHES " T [^\n]*Ray_Packet_Walk")
      message(FATAL_ERROR "${o} defines more than the packet walk and set-up:\n${out}")
    endif()
    math(EXPR checked "${checked} + 1")
  endif()
endforeach()
if(NOT checked EQUAL 2)
  message(FATAL_ERROR "not the two packet walk objects among ${OBJECTS}")
endif()
