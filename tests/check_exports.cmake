# Compares the dynamic symbols that LIB defines with the library's exports.
execute_process(COMMAND nm -D --defined-only -C ${LIB} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()
string(REPLACE "\n" ";" lines "${out}")
set(found "")
foreach(line ${lines})
  if(line MATCHES "^[0-9a-f]+ [A-Za-z] (.*)$")
    list(APPEND found "${CMAKE_MATCH_1}")
  endif()
endforeach()
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
