# The Windows build (mingw-w64, see cmake/mingw-w64-x86_64.cmake), included by the top CMakeLists.txt
# in place of the Linux dependency search and before the library target is made.
#
# - libcurl and SQLite are not built for mingw on Debian. The library still links completely, against
#   delay-load import libraries generated from short .def files (cmake/windows/) that list the calls it
#   makes: libcurl-x64.dll and sqlite3.dll are then loaded on the first call that needs them, so the
#   DLL loads and serves everything else where they are absent. Their headers are the Linux ones,
#   which are the same on both systems, seen through a folder that holds nothing else.
# - The platform layer (src/platform) is not built: on Windows its calls are the system's own, apart
#   from the few calls of its own that Windows lacks (the *Windows.cpp sources).
# - The DLL is ZOTHCommonDll.dll with the import library libZOTHCommonDll.dll.a; programs and DLLs go
#   to bin/ together with the MinGW runtime DLLs they need, so bin/ runs as it is (under Wine too).
# - Warnings: the ordinary flags plus -Wpedantic, so the sources stay buildable by other compilers.
# - The DLL carries a version resource (cmake/windows/version.rc.in).

list(APPEND ZOTH_WARNINGS -Wpedantic)

set(CMAKE_SHARED_LIBRARY_PREFIX "")
# The system DLLs the platform calls live in, beyond the ones every mingw link has (kernel32, shell32,
# ole32): version resources, WinINet, shell path calls, WinHTTP's proxy settings.
string(APPEND CMAKE_CXX_STANDARD_LIBRARIES " -lversion -lwininet -lshlwapi -lwinhttp")
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)

file(GLOB_RECURSE _zoth_platform_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/platform/*.cpp)
# Except src/platform/windows: what the platform layer does with the system's own calls there.
list(FILTER _zoth_platform_sources EXCLUDE REGEX "/src/platform/windows/")
# winhttp.h and wininet.h declare the same names differently: a unit of its own.
set_source_files_properties(${PROJECT_SOURCE_DIR}/src/platform/windows/SystemProxy.cpp PROPERTIES
  SKIP_UNITY_BUILD_INCLUSION ON)
set_source_files_properties(${_zoth_platform_sources} PROPERTIES HEADER_FILE_ONLY ON)
# ... except the calls of the layer's own that Windows does not have.
set_source_files_properties(${PROJECT_SOURCE_DIR}/src/platform/FileTemporaryWindows.cpp
  PROPERTIES HEADER_FILE_ONLY OFF)

# libcurl's and SQLite's headers, and nothing else from /usr/include.
find_path(ZOTH_CURL_HEADER_DIR curl/curl.h PATHS /usr/include /usr/include/${CMAKE_LIBRARY_ARCHITECTURE}
  /usr/include/x86_64-linux-gnu NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
find_path(ZOTH_SQLITE_HEADER_DIR sqlite3.h PATHS /usr/include NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
if(NOT ZOTH_CURL_HEADER_DIR OR NOT ZOTH_SQLITE_HEADER_DIR)
  message(FATAL_ERROR "libcurl or SQLite headers missing (run scripts/install-deps.sh)")
endif()
set(_zoth_dep_headers ${PROJECT_BINARY_DIR}/dep-headers)
file(MAKE_DIRECTORY ${_zoth_dep_headers})
file(CREATE_LINK ${ZOTH_CURL_HEADER_DIR}/curl ${_zoth_dep_headers}/curl SYMBOLIC)
file(CREATE_LINK ${ZOTH_SQLITE_HEADER_DIR}/sqlite3.h ${_zoth_dep_headers}/sqlite3.h SYMBOLIC)

# zoth_delay_import(TARGET DEF LIB): TARGET is an imported target whose link line is the delay-load
# import library LIB made from DEF at build time. Linking against the file's full path makes every link that
# uses it wait for it.
find_program(ZOTH_DLLTOOL NAMES ${CMAKE_DLLTOOL} x86_64-w64-mingw32-dlltool REQUIRED)
add_custom_target(zoth_delay_imports ALL)
function(zoth_delay_import target def lib)
  get_filename_component(_name ${def} NAME_WE)
  set(_lib ${CMAKE_ARCHIVE_OUTPUT_DIRECTORY}/${lib})
  add_custom_command(OUTPUT ${_lib}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_ARCHIVE_OUTPUT_DIRECTORY}
    COMMAND ${ZOTH_DLLTOOL} -d ${def} -y ${_lib}
    DEPENDS ${def} VERBATIM)
  add_custom_target(zoth_delay_${_name} DEPENDS ${_lib})
  add_dependencies(zoth_delay_imports zoth_delay_${_name})
  add_library(${target} INTERFACE IMPORTED)
  set_target_properties(${target} PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES ${_zoth_dep_headers}
    INTERFACE_LINK_LIBRARIES ${_lib})
endfunction()
# With your own Windows builds of libcurl and SQLite (made with this compiler), ZOTH_WINDOWS_DELAY_LOAD
# OFF links them as ordinary imports instead: their CMake packages or libraries and headers are found
# below CMAKE_FIND_ROOT_PATH (give their install prefix there).
option(ZOTH_WINDOWS_DELAY_LOAD "Windows: delay-load libcurl-x64.dll and sqlite3.dll through generated import libraries" ON)
if(ZOTH_WINDOWS_DELAY_LOAD)
  zoth_delay_import(CURL::libcurl ${PROJECT_SOURCE_DIR}/cmake/windows/libcurl-x64.def libcurl-x64.delay.a)
  zoth_delay_import(SQLite::SQLite3 ${PROJECT_SOURCE_DIR}/cmake/windows/sqlite3.def libsqlite3.delay.a)
else()
  find_package(CURL REQUIRED)
  find_package(SQLite3 REQUIRED)
endif()

# The DLL carries a version resource with the project's version (GetFileVersionInfo reads it; the
# Windows test run checks `zoth version ZOTHCommonDll.dll`). The target is made after this file, so
# the resource joins it at the end of the directory.
enable_language(RC)
configure_file(${PROJECT_SOURCE_DIR}/cmake/windows/version.rc.in ${PROJECT_BINARY_DIR}/ZOTHCommonDll.rc @ONLY)
cmake_language(DEFER CALL target_sources ZOTHCommonDll PRIVATE ${PROJECT_BINARY_DIR}/ZOTHCommonDll.rc)

# The MinGW runtime DLLs (C++ library, GCC support, POSIX threads) beside the programs. They stay
# shared rather than static: the library's interface passes C++ objects, so the DLL and its clients
# must share one C++ runtime.
set(_zoth_runtime_dlls)
foreach(_dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${_dll}
    OUTPUT_VARIABLE _path OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT IS_ABSOLUTE "${_path}" OR NOT EXISTS "${_path}")
    message(FATAL_ERROR "MinGW runtime ${_dll} not found")
  endif()
  list(APPEND _zoth_runtime_dlls ${_path})
endforeach()
set(ZOTH_MINGW_RUNTIME_DLLS ${_zoth_runtime_dlls} CACHE INTERNAL "MinGW runtime DLLs the programs need")
add_custom_target(zoth_mingw_runtime ALL
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}
  COMMAND ${CMAKE_COMMAND} -E copy_if_different ${_zoth_runtime_dlls} ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}
  VERBATIM)
install(FILES ${_zoth_runtime_dlls} DESTINATION bin)
