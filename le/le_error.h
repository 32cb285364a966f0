// Per-thread, per-family error strings of the flat interface, and the guard that turns
// exceptions into them at the boundary.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <string>

namespace le::err {

// One thread-local string per handle family.
enum class Family { Ctx, A2x, Fca, Motion, Stream, Utt, Count };

// The calling thread's string of the family; created empty on first use.
std::string& slot(Family f);
inline void clear(Family f) { slot(f).clear(); }
inline void set(Family f, const char* msg) { slot(f) = msg; }
inline void set(Family f, const std::string& msg) { slot(f) = msg; }
// The thrown-message form: "<function>: <what>".
void setErr(Family f, const char* fn, const std::exception& e);

// The borrow functions' convention: msg copied into the caller's buffer (buf, cap), truncated to
// cap - 1 bytes and terminated; nothing for a null buffer or cap 0.
inline void copyOut(char* buf, size_t cap, const char* msg) {
  if (!buf || cap == 0) return;
  const size_t n = std::min(cap - 1, std::strlen(msg));
  std::memcpy(buf, msg, n);
  buf[n] = '\0';
}
inline void copyOut(char* buf, size_t cap, const std::string& msg) { copyOut(buf, cap, msg.c_str()); }

// Runs body; any standard exception is stored in the thrown-message form and fail returned.
template <class R, class Body>
R guard(Family f, const char* fn, R fail, Body&& body) noexcept {
  try {
    return body();
  } catch (const std::exception& e) {
    setErr(f, fn, e);
  } catch (...) {
    set(f, std::string(fn) + ": unknown exception");
  }
  return fail;
}

// The borrow functions' guard: a standard exception's text (after prefix) or `unknown` copied
// into (buf, cap), and fail returned.
template <class R, class Body>
R guardCopy(char* buf, size_t cap, const char* unknown, R fail, Body&& body, const char* prefix = "") noexcept {
  try {
    return body();
  } catch (const std::exception& e) {
    if (*prefix) copyOut(buf, cap, std::string(prefix) + e.what());
    else copyOut(buf, cap, e.what());
  } catch (...) {
    copyOut(buf, cap, unknown);
  }
  return fail;
}

}  // namespace le::err

// Argument check at the flat boundary: stores the fixed message and returns ret.
#define LE_CHECK_ARG(cond, family, msg, ret) \
  do {                                       \
    if (!(cond)) {                           \
      ::le::err::set((family), (msg));       \
      return ret;                            \
    }                                        \
  } while (0)
