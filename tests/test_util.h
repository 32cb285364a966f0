// Small helpers shared by tests and benchmarks (no test framework needed).
#pragma once

#include <string>

namespace le::testing {

// The message of the E that fn throws, or "" when it does not throw.
template <class E, class Fn>
std::string messageOf(Fn&& fn) {
  try {
    fn();
  } catch (const E& e) {
    return e.what();
  }
  return "";
}

}  // namespace le::testing
