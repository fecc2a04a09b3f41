# Debian packages of the install components, built by CPack (`make package`), split as a Debian
# maintainer would split a shared library:
#   libzothcommondll1     the library under its soname libZOTHCommonDll.so.1     (component runtime)
#   libzothcommondll-dev  headers, the .so link, CMake package, pkg-config file  (component development)
#   zoth                  the command-line tool                                  (component tool)
# The runtime package's name follows the soname, so a new major version is a new package that can be
# installed beside the old one. Dependencies on libcurl, SQLite and the C++ runtime come from
# dpkg-shlibdeps; the packages among themselves depend on the exact same version.
set(ZOTH_DEB_RUNTIME libzothcommondll${PROJECT_VERSION_MAJOR})
set(ZOTH_DEB_DEV libzothcommondll-dev)
set(ZOTH_DEB_TOOL zoth)
set(ZOTH_DEB_REVISION 1)
set(ZOTH_DEB_VERSION ${PROJECT_VERSION}-${ZOTH_DEB_REVISION})
set(ZOTH_DEB_MAINTAINER "The ZOTH Common authors <zoth-common@example.org>" CACHE STRING
    "Maintainer field of the Debian packages: whoever builds them for distribution puts their address")

# Every package carries the copyright file (MIT) and a Debian changelog under
# /usr/share/doc/<package>/. They are installed only when a package is built, not by a plain
# `cmake --install`.
string(TIMESTAMP _zoth_deb_date "%a, %d %b %Y %H:%M:%S +0000" UTC) # honours SOURCE_DATE_EPOCH
set(_zoth_deb_doc ${PROJECT_BINARY_DIR}/debian-doc)
file(MAKE_DIRECTORY ${_zoth_deb_doc})
file(WRITE ${_zoth_deb_doc}/changelog.Debian
  "zoth-common (${ZOTH_DEB_VERSION}) unstable; urgency=medium\n\n"
  "  * Release ${PROJECT_VERSION}; see CHANGELOG.md of the source tree.\n\n"
  " -- ${ZOTH_DEB_MAINTAINER}  ${_zoth_deb_date}\n")
find_program(ZOTH_GZIP gzip)
if(ZOTH_GZIP)
  execute_process(COMMAND ${ZOTH_GZIP} -9nf ${_zoth_deb_doc}/changelog.Debian RESULT_VARIABLE _zoth_gzip_rc)
endif()
foreach(_comp runtime development tool)
  if(_comp STREQUAL "runtime")
    set(_pkg ${ZOTH_DEB_RUNTIME})
  elseif(_comp STREQUAL "development")
    set(_pkg ${ZOTH_DEB_DEV})
  else()
    set(_pkg ${ZOTH_DEB_TOOL})
  endif()
  install(FILES ${PROJECT_SOURCE_DIR}/debian/copyright
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${_pkg} COMPONENT ${_comp} EXCLUDE_FROM_ALL)
  if(EXISTS ${_zoth_deb_doc}/changelog.Debian.gz)
    install(FILES ${_zoth_deb_doc}/changelog.Debian.gz
      DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${_pkg} COMPONENT ${_comp} EXCLUDE_FROM_ALL)
  endif()
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zoth-common)
set(CPACK_PACKAGE_VENDOR "The ZOTH Common authors")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${ZOTH_DEB_MAINTAINER})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON) # the debug information stays in the build tree (and in the ABI baseline)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tool)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${ZOTH_DEB_REVISION})
set(CPACK_DEBIAN_PACKAGE_SOURCE zoth-common)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tool links the library of the runtime package, which is not installed while packages are
# built: dpkg-shlibdeps finds it in the build tree and leaves that dependency to the line below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON) # a shlibs file: clients depend on >= this version
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${ZOTH_DEB_RUNTIME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The ldconfig trigger refreshes the linker cache once per dpkg run, as Debian's library packages do.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/debian/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "common service library of desktop clients (shared library)
ZOTH Common gathers what every part of a desktop client needs: blocking
HTTP and HTTPS transfers over libcurl (requests, whole-file download,
multipart upload, a speed probe), worker threads, tasks and timers, a thin
SQLite connection and cursor, file and directory operations, and text,
encoding, digest, URL and time helpers.
.
This package holds the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${ZOTH_DEB_DEV})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The public headers include <curl/curl.h> and <sqlite3.h>, and the CMake package finds both.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${ZOTH_DEB_RUNTIME} (= ${ZOTH_DEB_VERSION}), libcurl4-openssl-dev | libcurl-dev, libsqlite3-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "common service library of desktop clients (development files)
ZOTH Common gathers what every part of a desktop client needs: HTTP over
libcurl, worker threads, tasks and timers, SQLite, files and text.
.
This package holds the C++20 headers, the link to the shared library, the
CMake package (find_package(ZOTHCommon CONFIG), target ZOTH::Common) and
the pkg-config file zoth-common.pc.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ${ZOTH_DEB_TOOL})
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${ZOTH_DEB_RUNTIME} (= ${ZOTH_DEB_VERSION})")
set(CPACK_COMPONENT_TOOL_DESCRIPTION
  "command-line tool of the ZOTH Common library
zoth runs the operations of the ZOTH Common library from a shell: digests,
Base64 and URL text, GUIDs, tasks and timers, SQL on a SQLite file, folder
listings and deletion, file versions, HTTP requests, downloads, uploads and
a speed probe, and a demonstration of every subsystem on loopback.")

include(CPack)
