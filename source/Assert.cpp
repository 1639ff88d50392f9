#include "Assert.h"

#include <cstdio>
#include <cstdlib>

namespace tamo {

void assertFail(const char* expr, const char* file, int line, const char* function) noexcept {
    std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, expr);
    std::abort();
}

}  // namespace tamo
