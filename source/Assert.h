// Internal preconditions that correct use cannot violate. Always active: a
// failed precondition names the expression, the source file, the line and
// the function, then stops the process.
#pragma once

namespace tamo {
[[noreturn]] void assertFail(const char* expr, const char* file, int line, const char* function) noexcept;
}

#define TAMO_ASSERT(expr, file) \
    ((expr) ? static_cast<void>(0) : ::tamo::assertFail(#expr, file, __LINE__, __PRETTY_FUNCTION__))
