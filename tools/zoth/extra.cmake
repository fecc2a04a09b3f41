# The http section of `zoth demo` runs an embedded loopback server (cpp-httplib) and checks the
# downloaded file's digest against an independent one: OpenSSL's on Linux, the system's CNG on Windows,
# where cpp-httplib is the plain-HTTP build of scripts/build-windows-deps.sh (without OpenSSL).
if(WIN32)
  target_include_directories(zoth SYSTEM BEFORE PRIVATE ${ZOTH_WINDOWS_DEPS_DIR}/test/include)
  target_link_libraries(zoth PRIVATE ${ZOTH_WINDOWS_DEPS_DIR}/test/lib/libcpp-httplib.a ws2_32 bcrypt)
else()
  find_package(OpenSSL REQUIRED)
  find_library(ZOTH_HTTPLIB_LIBRARY cpp-httplib REQUIRED)
  target_link_libraries(zoth PRIVATE ${ZOTH_HTTPLIB_LIBRARY} OpenSSL::SSL OpenSSL::Crypto)
endif()
