// The one libcurl share object of the process (connections, DNS answers and TLS sessions), made
// safe across fork. The easy handles that use it are kept per object (KeptHandle.h).
#pragma once

#include <curl/curl.h>

namespace ZOTH::http {

// The process-wide share, made by the first call (on any thread) and never released, so a transfer
// that still runs while the process ends never meets a freed share. Each kind of data has a lock
// of its own, so transfers on any thread may use it at once. A forked child gets a share of its
// own on its first call: the inherited one, with the parent's sockets, is left untouched. Null when
// libcurl could make none.
CURLSH* ProcessShare();

} // namespace ZOTH::http
