# Installation and packaging: the shared library with its soname, the public headers, the zoth tool,
# a CMake package (find_package(ZOTHCommon CONFIG) -> ZOTH::Common) and a pkg-config file.
# On Debian and its derivatives the libraries go to the multiarch folder (lib/x86_64-linux-gnu), for
# any prefix, as Debian's packages and meson do: the loader (ld.so.conf.d), pkg-config and CMake's
# find_package look there for /usr and /usr/local alike. GNUInstallDirs alone does so only for the
# prefix /usr, which would leave the packages' library in /usr/lib. -DCMAKE_INSTALL_LIBDIR=... wins.
# A build folder configured before this rule holds GNUInstallDirs' own default "lib" (recognised by
# its help text), which is replaced too.
get_property(_zoth_libdir_help CACHE CMAKE_INSTALL_LIBDIR PROPERTY HELPSTRING)
if(NOT WIN32 AND CMAKE_LIBRARY_ARCHITECTURE AND EXISTS /etc/debian_version
   AND (NOT DEFINED CMAKE_INSTALL_LIBDIR OR _zoth_libdir_help STREQUAL "Object code libraries (lib)"))
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH
      "Object code libraries (lib/<multiarch triplet> on Debian)" FORCE)
  if(_zoth_libdir_help) # the folders below were derived from the old "lib": derive them anew
    unset(ZOTH_INSTALL_CMAKEDIR CACHE)
    unset(ZOTH_INSTALL_PKGCONFIGDIR CACHE)
  endif()
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ZOTH_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZOTHCommon CACHE STRING
    "Where the CMake package files are installed, relative to the prefix")
set(ZOTH_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig CACHE STRING
    "Where zoth-common.pc is installed, relative to the prefix")

# The public headers hand std::string, std::atomic_ref users and the like across the boundary, so a
# consumer compiles as C++20 too; the exported target carries that requirement.
target_compile_features(ZOTHCommonDll INTERFACE cxx_std_20)
# Installed, the target is ZOTH::Common, the same name as the alias in the build tree.
set_target_properties(ZOTHCommonDll PROPERTIES EXPORT_NAME Common)

# Components, one per Debian package (cmake/Package.cmake): runtime (the library under its soname),
# development (headers, the .so link, CMake package, pkg-config file) and tool (zoth).
install(TARGETS ZOTHCommonDll EXPORT ZOTHCommonTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
# The include folder reaches the exported target once, from the target's own INSTALL_INTERFACE
# entry (an INCLUDES DESTINATION here would list it a second time).

# By folder, so every header a subsystem adds under include/zoth/ is installed without an edit here.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/zoth
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.h")

if(TARGET zoth)
  # The tool finds the library beside it in the prefix, wherever the prefix is moved.
  file(RELATIVE_PATH _zoth_bin_to_lib
    ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR} ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR})
  set_target_properties(zoth PROPERTIES INSTALL_RPATH "$ORIGIN/${_zoth_bin_to_lib}")
  install(TARGETS zoth RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
endif()

install(EXPORT ZOTHCommonTargets
  NAMESPACE ZOTH::
  FILE ZOTHCommonTargets.cmake
  DESTINATION ${ZOTH_INSTALL_CMAKEDIR} COMPONENT development)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/ZOTHCommonConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ZOTHCommonConfig.cmake
  INSTALL_DESTINATION ${ZOTH_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZOTHCommonConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/ZOTHCommonConfig.cmake
  ${PROJECT_BINARY_DIR}/ZOTHCommonConfigVersion.cmake
  DESTINATION ${ZOTH_INSTALL_CMAKEDIR} COMPONENT development)

# pkg-config paths are written relative to ${prefix}, so the file stays right in a moved prefix.
file(RELATIVE_PATH ZOTH_PC_LIBDIR_FROM_PCDIR
  ${CMAKE_INSTALL_PREFIX}/${ZOTH_INSTALL_PKGCONFIGDIR} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ZOTH_PC_LIBDIR_FROM_PCDIR "${ZOTH_PC_LIBDIR_FROM_PCDIR}")
set(ZOTH_PC_LIBDIR ${CMAKE_INSTALL_LIBDIR})
set(ZOTH_PC_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR})
configure_file(${CMAKE_CURRENT_LIST_DIR}/zoth-common.pc.in ${PROJECT_BINARY_DIR}/zoth-common.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zoth-common.pc DESTINATION ${ZOTH_INSTALL_PKGCONFIGDIR} COMPONENT development)

include(${CMAKE_CURRENT_LIST_DIR}/Package.cmake)
