// The one libcurl share object of the process (connections, DNS answers and TLS sessions) and the
// easy handles that use it, made safe across fork.
#pragma once

#include <curl/curl.h>

namespace ZOTH::http {

// The process-wide share, made by the first call (on any thread) and never released, so a transfer
// that still runs while the process ends never meets a freed share. Each kind of data has a lock
// of its own, so transfers on any thread may use it at once. A forked child gets a share of its
// own on its first call: the inherited one, with the parent's sockets, is left untouched. Null when
// libcurl could make none.
CURLSH* ProcessShare();

// curl_easy_init for a handle that ReleaseEasyHandle can tell apart after a fork. Null on failure.
CURL* NewEasyHandle();

// curl_easy_cleanup for a handle from NewEasyHandle, except in a forked child for a handle made
// before the fork: that one may hold the parent's connection and is left as it is.
void ReleaseEasyHandle(CURL* handle);

} // namespace ZOTH::http
