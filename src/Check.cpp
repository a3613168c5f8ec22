// Reporting half of HEMIRAY_CHECK: kept out of line so the check itself stays a
// compare and a never-taken branch in the hot loops.
#include "Check.h"

#include <cstdio>
#include <cstdlib>

namespace hemiray {

void checkFailed(const char* text, const char* file, int line) noexcept {
    std::fprintf(stderr, "%s:%d: Assertion '%s' failed.\n", file, line, text);
    std::fflush(stderr);
    std::abort();
}

}  // namespace hemiray
