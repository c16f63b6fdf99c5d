#include "core/check.h"

#include <cstdio>
#include <cstdlib>

namespace zelsocket {

void DcheckFailed(const char* condition, const char* file, int line) {
  std::fprintf(stderr, "zelsocket: check failed: %s at %s:%d\n", condition, file, line);
  std::fflush(stderr);
  std::abort();
}

#if ZS_CHECKED_BUILD
namespace seam {
std::atomic<void (*)()> g_beforeCallWake{nullptr};
}  // namespace seam
#endif

}  // namespace zelsocket
