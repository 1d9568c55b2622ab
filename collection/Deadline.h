#pragma once

#include <chrono>
#include <functional>

namespace collection {

/// When a collection has to be ready, and whether it is still wanted. Belongs to the collection's
/// thread.
class Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  /// The time starts now. `isCancelled` tells whether the collection is to be broken off; it is
  /// asked often, and must outlive this.
  Deadline(std::chrono::milliseconds limit, const std::function<bool()>& isCancelled);

  /// Throws CollectionError (kResultStopping) once the collection is to be broken off. To be called
  /// at least some ten times a second.
  void throwIfCancelled() const;

  [[nodiscard]] bool isCancelled() const { return cancelled(); }

  [[nodiscard]] bool hasPassed() const { return Clock::now() >= end; }

  /// The moment `limit` from now, or the end of the collection if that comes first.
  [[nodiscard]] Clock::time_point orAfter(std::chrono::milliseconds limit) const;

 private:
  const Clock::time_point end;
  const std::function<bool()>& cancelled;
};

}  // namespace collection
