#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace collection {

/// Why a collection is given up: thrown on its way, and the end of it in Collector::collect.
class CollectionError : public std::runtime_error {
 public:
  /// `result` is one of the kResult... codes; `text` is for people.
  CollectionError(std::int32_t result, const std::string& text)
      : std::runtime_error(text), status(result) {}

  const std::int32_t status;
};

/// The end of a collection that could not do without a call: "CALL PATH: REASON" with the reason of
/// the present `errno`, which also tells whether it is one of room (kResultNoRoom).
[[noreturn]] void throwCallFailed(const std::string& call, const std::string& path);

}  // namespace collection
