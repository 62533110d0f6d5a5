// The store's last failure on the calling thread. A failed store call does
// not set errno, so callers that report a failed operation in their own log
// line print this instead. Per thread, because one store serves several
// threads and SQLite's own error text belongs to the shared connection.
// Every store operation that reaches the database clears it on entry, so
// after a call it is empty exactly when that call succeeded.
#pragma once

#include <cstdio>
#include <string>

namespace kxdb {

namespace detail {
inline thread_local std::string tLastError;
}

// "" when the thread's last store operation succeeded or none ran.
inline const char* lastError() { return detail::tLastError.c_str(); }

// Records "<operation>: <message> (<code>)" for the calling thread.
inline void setLastError(const char* operation, const char* message, int code) {
  char text[256];
  std::snprintf(text, sizeof(text), "%s: %s (%d)", operation, message != nullptr ? message : "", code);
  detail::tLastError = text;
}

inline void clearLastError() { detail::tLastError.clear(); }

}  // namespace kxdb
