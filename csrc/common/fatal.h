// Fatal precondition checks.
//
// A failed check prints the expression, the operator group's source name and
// the line, then aborts the process. These guard preconditions whose violation
// would make a kernel read or write out of range, so they stay on in every
// build, NDEBUG or not, and are never turned into Python exceptions.
#pragma once

namespace vorta {

[[noreturn]] void assert_fail(const char* expr, const char* source, int line) noexcept;

}  // namespace vorta

// Each source that uses VORTA_ASSERT defines `constexpr char kAssertSource[]`,
// the group name that reports carry ("norm", "sdp/api", ...).
#define VORTA_ASSERT(cond) \
  ((cond) ? (void)0 : ::vorta::assert_fail(#cond, kAssertSource, __LINE__))

// For checks whose reported text is not the C++ expression itself.
#define VORTA_ASSERT_TEXT(cond, text) \
  ((cond) ? (void)0 : ::vorta::assert_fail(text, kAssertSource, __LINE__))
