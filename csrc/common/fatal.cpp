#include "common/fatal.h"

#include <cstdio>
#include <cstdlib>

namespace vorta {

void assert_fail(const char* expr, const char* source, int line) noexcept {
  std::fprintf(stderr, "vorta_addons: %s:%d: Assertion `%s' failed.\n", source, line, expr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace vorta
