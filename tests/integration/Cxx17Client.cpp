// A client compiled in C++17 that includes nothing but the umbrella header: the build must stop with
// an #error naming C++20 (checked by CheckLanguageMode.cmake), not with errors deep in the headers.
#include "zoth/zoth.h"

int main() {
    return 0;
}
