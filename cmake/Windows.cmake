# The Windows build (mingw-w64, see cmake/mingw-w64-x86_64.cmake), included by the top CMakeLists.txt
# in place of the Linux dependency search and before the library target is made.
#
# - libcurl and SQLite are not built for mingw on Debian: scripts/build-windows-deps.sh builds them
#   from Debian's sources (see below), or a client's own builds are delay-loaded.
# - The platform layer (src/platform) is not built: on Windows its calls are the system's own, apart
#   from the few calls of its own that Windows lacks (the *Windows.cpp sources and src/platform/windows).
# - The DLL is ZOTHCommonDll.dll with the import library libZOTHCommonDll.dll.a; programs and DLLs go
#   to bin/ together with the MinGW runtime DLLs they need, so bin/ runs as it is (under Wine too).
# - Warnings: the ordinary flags plus -Wpedantic, so the sources stay buildable by other compilers.
# - The DLL carries a version resource (cmake/windows/version.rc.in).

list(APPEND ZOTH_WARNINGS -Wpedantic)

set(CMAKE_SHARED_LIBRARY_PREFIX "")
# The system DLLs the platform calls live in, beyond the ones every mingw link has (kernel32, shell32,
# ole32): version resources, WinINet, shell path calls, WinHTTP's proxy settings, Schannel's
# connection info.
string(APPEND CMAKE_CXX_STANDARD_LIBRARIES " -lversion -lwininet -lshlwapi -lwinhttp -lsecur32")
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

# libcurl and SQLite: by default, the Windows builds of scripts/build-windows-deps.sh (libcurl with
# Schannel, SQLite, from Debian's sources), linked as ordinary imports and copied beside the programs
# in bin/ with their licence notices. The script runs here (it does nothing when its cache folder is
# present); ZOTH_WINDOWS_DEPS names another folder of the same layout instead.
set(ZOTH_WINDOWS_DEPS "" CACHE PATH
  "Windows builds of libcurl and SQLite (bin/, lib/, include/); empty: those of scripts/build-windows-deps.sh")
# ZOTH_WINDOWS_DELAY_LOAD ON is the road for clients who ship their own libcurl-x64.dll and
# sqlite3.dll: the library then links delay-load import libraries generated from short .def files
# (cmake/windows/) that list the calls it makes, so the DLL loads and serves everything else where
# those two are absent, and loads them on the first call that needs them.
option(ZOTH_WINDOWS_DELAY_LOAD "Windows: delay-load libcurl-x64.dll and sqlite3.dll through generated import libraries" OFF)
if(NOT ZOTH_WINDOWS_DEPS)
  execute_process(COMMAND bash ${PROJECT_SOURCE_DIR}/scripts/build-windows-deps.sh
    OUTPUT_VARIABLE _deps_out RESULT_VARIABLE _deps_status)
  if(NOT _deps_status EQUAL 0)
    message(FATAL_ERROR "scripts/build-windows-deps.sh failed: no Windows libcurl and SQLite to link")
  endif()
  string(STRIP "${_deps_out}" _deps_out)
  string(REGEX REPLACE ".*\n" "" _zoth_deps "${_deps_out}")
else()
  set(_zoth_deps ${ZOTH_WINDOWS_DEPS})
endif()
message(STATUS "Windows libcurl and SQLite: ${_zoth_deps}")
set(ZOTH_WINDOWS_DEPS_DIR ${_zoth_deps} CACHE INTERNAL "The folder of the Windows libcurl and SQLite in use")

# The headers of both, and nothing else, in one folder (the examples' test build uses it too).
set(_zoth_dep_headers ${PROJECT_BINARY_DIR}/dep-headers)
file(MAKE_DIRECTORY ${_zoth_dep_headers})
file(CREATE_LINK ${_zoth_deps}/include/curl ${_zoth_dep_headers}/curl SYMBOLIC)
file(CREATE_LINK ${_zoth_deps}/include/sqlite3.h ${_zoth_dep_headers}/sqlite3.h SYMBOLIC)

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
if(ZOTH_WINDOWS_DELAY_LOAD)
  zoth_delay_import(CURL::libcurl ${PROJECT_SOURCE_DIR}/cmake/windows/libcurl-x64.def libcurl-x64.delay.a)
  zoth_delay_import(SQLite::SQLite3 ${PROJECT_SOURCE_DIR}/cmake/windows/sqlite3.def libsqlite3.delay.a)
else()
  list(APPEND CMAKE_FIND_ROOT_PATH ${_zoth_deps})
  find_package(CURL CONFIG REQUIRED)
  find_package(SQLite3 REQUIRED)
  # The installed package carries both, so a Windows client's find_dependency(CURL) and
  # find_dependency(SQLite3) resolve in its own prefix.
  install(FILES ${_zoth_deps}/bin/libcurl-x64.dll ${_zoth_deps}/bin/sqlite3.dll ${_zoth_deps}/bin/sqlite3.exe
    DESTINATION bin COMPONENT runtime)
  install(DIRECTORY ${_zoth_deps}/share/licenses DESTINATION share COMPONENT runtime)
  install(DIRECTORY ${_zoth_deps}/include/ DESTINATION include COMPONENT development)
  install(FILES ${_zoth_deps}/lib/libcurl-x64.dll.a ${_zoth_deps}/lib/libsqlite3.dll.a
    DESTINATION lib COMPONENT development)
  install(DIRECTORY ${_zoth_deps}/lib/cmake/CURL DESTINATION lib/cmake COMPONENT development)
  install(DIRECTORY ${_zoth_deps}/lib/pkgconfig/ DESTINATION lib/pkgconfig COMPONENT development)
endif()
# The two DLLs, the SQLite shell and the licence notices beside the programs.
add_custom_target(zoth_windows_deps ALL
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}
  COMMAND ${CMAKE_COMMAND} -E copy_if_different ${_zoth_deps}/bin/libcurl-x64.dll ${_zoth_deps}/bin/sqlite3.dll
    ${_zoth_deps}/bin/sqlite3.exe ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}
  COMMAND ${CMAKE_COMMAND} -E copy_directory ${_zoth_deps}/share/licenses ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/licenses
  VERBATIM)

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
