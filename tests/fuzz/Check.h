#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

/// Ends the program, and so tells the fuzzer, when something does not hold that always must.
inline void check(bool holds, const std::string& what) {
  if (!holds) {
    std::cerr << "does not hold: " << what << std::endl;
    std::abort();
  }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);
