// The message of the error a call throws, for tables of refusals.
#pragma once

#include <exception>
#include <string>

namespace kxtest {

// What `call` threw as an `E`, or "(accepted)" when it returned normally.
template <class E = std::exception, class F>
std::string errorOf(F&& call) {
  try {
    call();
  } catch (const E& e) {
    return e.what();
  }
  return "(accepted)";
}

}  // namespace kxtest
