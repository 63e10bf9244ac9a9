# Checks the symbols that LIB exports against the library's export list.
# With OBJDUMP (a Windows DLL), the export table is read with objdump -p,
# and the DLLs it imports must be the system's or the project's own (the
# C++ runtime is linked in); corekit and panelkit get the import check only.
set(found "")
if(OBJDUMP)
  execute_process(COMMAND ${OBJDUMP} -p ${LIB} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "objdump failed on ${LIB}")
  endif()
  string(REPLACE "\n" ";" lines "${out}")
  set(mangled "")
  foreach(line ${lines})
    if(line MATCHES "^[ \t]*[[] *[0-9]+[]] ([^ +][^ ]*)$")
      list(APPEND mangled "${CMAKE_MATCH_1}")
    elseif(line MATCHES "DLL Name: (.*)$")
      string(TOLOWER "${CMAKE_MATCH_1}" dll)
      if(NOT dll MATCHES "^(kernel32|msvcrt|ucrtbase|api-ms-win-[a-z0-9-]+|corekit|panelkit)\\.dll$")
        message(FATAL_ERROR "${LIB} imports ${CMAKE_MATCH_1}, which is not a system DLL")
      endif()
      message(STATUS "imports ${dll}")
    endif()
  endforeach()
  if(NOT LIB MATCHES "voxelune\\.dll$")
    return()
  endif()
  string(REGEX REPLACE "objdump$" "c++filt" cxxfilt "${OBJDUMP}")
  execute_process(COMMAND ${cxxfilt} ${mangled} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${cxxfilt} failed")
  endif()
  string(STRIP "${out}" out)
  string(REPLACE "\n" ";" found "${out}")
else()
  execute_process(COMMAND nm -D --defined-only -C ${LIB} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "nm failed on ${LIB}")
  endif()
  string(REPLACE "\n" ";" lines "${out}")
  foreach(line ${lines})
    if(line MATCHES "^[0-9a-f]+ [A-Za-z] (.*)$")
      list(APPEND found "${CMAKE_MATCH_1}")
    endif()
  endforeach()
endif()
list(SORT found)
set(expected
  "Get_Version_Ray(char*)"
  "NvOptimusEnablementCuda"
  "Ray_Cleanup()"
  "Ray_Exit()"
  "Ray_Free(char**)"
  "Ray_Init(unsigned short)"
  "Ray_Mouse_Click(Boxs*, int, float, float)"
  "Ray_Mouse_Get_Rot(float*)"
  "Ray_Mouse_Motion(Boxs*, int, float, float)"
  "Ray_Set_Clip(float)"
  "Ray_Set_Clip(int, float, float, float, float, float, float)"
  "Ray_Set_Color_Map(unsigned char, unsigned char*, unsigned char**, unsigned char*)"
  "Ray_Set_Color_Scheme(unsigned char)"
  "Ray_Set_Color_TAG(unsigned short, unsigned short*, unsigned short*, unsigned short*)"
  "Ray_Set_Light(unsigned short, unsigned char, unsigned int, Vector_4*)"
  "Ray_Set_Rotation(float, float, float)"
  "Ray_Set_Threshold(float)"
  "Ray_Set_Transfo(Matrix_4x4*)"
  "Ray_Set_Volume(unsigned short, int, int, int, float*, unsigned char*)"
  "Ray_Start(Boxs*, unsigned short)"
  "Ray_Stop(unsigned short)")
list(SORT expected)
if(NOT found STREQUAL expected)
  message(FATAL_ERROR "exported symbols differ.\nfound: ${found}\nexpected: ${expected}")
endif()
message(STATUS "exports match (${LIB})")
