// The other order: the umbrella header first, then the client's own header. Compiled with -Wall
// -Wextra -Werror into the same test program: had the umbrella header defined any of the client's
// names, the client's definitions below would be redefinitions and fail the build. The names the
// platform layer defines (zoth/win32.h) must not be there at all.
#include "zoth/zoth.h"

#if defined(TRUE) || defined(FALSE) || defined(ERROR_SUCCESS) || defined(ERROR_FILE_NOT_FOUND) ||            \
    defined(INFINITE) || defined(MAX_PATH) || defined(WAIT_TIMEOUT) || defined(GENERIC_READ) ||              \
    defined(INVALID_HANDLE_VALUE) || defined(CP_UTF8) || defined(S_OK)
#error "zoth/zoth.h defines a macro of the platform layer: it belongs in zoth/win32.h"
#endif

#include "ClientMacros.h"

// Used by the test program, so that this unit is linked and its checks cannot be dropped unseen.
int ClientMacrosAfterUmbrella() {
    return ERROR_SUCCESS + (TRUE ? 1 : 0);
}
