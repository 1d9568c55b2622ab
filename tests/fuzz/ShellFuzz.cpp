// The shell against the model of its rules.

#include "tests/fuzz/Check.h"
#include "tests/shell/ShellCases.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::optional<std::string> disagreement = disagreementOn({bytes, size});
  check(!disagreement, disagreement.value_or(""));
  return 0;
}
