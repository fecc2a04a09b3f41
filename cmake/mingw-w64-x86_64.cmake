# Cross-compiles for 64-bit Windows with Debian's mingw-w64 (g++-mingw-w64-x86-64-posix). The posix
# thread model is the one whose libstdc++ has std::thread, std::mutex and std::condition_variable.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(ZOTH_MINGW_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${ZOTH_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZOTH_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${ZOTH_MINGW_TRIPLET}-windres)
set(CMAKE_DLLTOOL ${ZOTH_MINGW_TRIPLET}-dlltool)

# Libraries, headers and packages come from the mingw-w64 tree (and prefixes given in
# -DCMAKE_FIND_ROOT_PATH=...), never from the Linux system.
list(APPEND CMAKE_FIND_ROOT_PATH /usr/${ZOTH_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Windows programs built here run under Wine where one is asked to run them (ctest, tools).
find_program(ZOTH_WINE NAMES wine wine64)
if(ZOTH_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ZOTH_WINE})
endif()
