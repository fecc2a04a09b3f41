# Compiles SOURCE, which includes only the umbrella header, with the public include path INCLUDE_DIR:
# in C++20 it must compile, in C++17 it must fail with the header's #error naming C++20.
# usage: cmake -DCXX=compiler -DINCLUDE_DIR=dir -DSOURCE=file -P CheckLanguageMode.cmake
foreach(var CXX INCLUDE_DIR SOURCE)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "CheckLanguageMode: ${var} is not set")
  endif()
endforeach()

execute_process(COMMAND ${CXX} -std=c++20 -Wall -Wextra -Werror -fsyntax-only -I${INCLUDE_DIR} ${SOURCE}
  RESULT_VARIABLE rc20 OUTPUT_VARIABLE out20 ERROR_VARIABLE out20)
if(NOT rc20 EQUAL 0)
  message(FATAL_ERROR "the umbrella header does not compile as C++20:\n${out20}")
endif()

execute_process(COMMAND ${CXX} -std=c++17 -fsyntax-only -I${INCLUDE_DIR} ${SOURCE}
  RESULT_VARIABLE rc17 OUTPUT_VARIABLE out17 ERROR_VARIABLE out17)
if(rc17 EQUAL 0)
  message(FATAL_ERROR "the umbrella header compiled as C++17: it must stop with an #error naming C++20")
endif()
if(NOT out17 MATCHES "#error[^\n]*C\\+\\+20")
  message(FATAL_ERROR "C++17 failed without an #error naming C++20:\n${out17}")
endif()
message(STATUS "C++20 compiles; C++17 stops with the #error naming C++20")
