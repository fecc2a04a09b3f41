# The http section of `zoth demo` runs an embedded loopback server (cpp-httplib, a compiled library
# here) and checks the downloaded file's digest against OpenSSL's.
# Neither is built for mingw: on Windows the demo names those steps as skipped.
if(NOT WIN32)
  find_package(OpenSSL REQUIRED)
  find_library(ZOTH_HTTPLIB_LIBRARY cpp-httplib REQUIRED)
  target_link_libraries(zoth PRIVATE ${ZOTH_HTTPLIB_LIBRARY} OpenSSL::SSL OpenSSL::Crypto)
endif()
