#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

class MessageValue;

/// The message that is exchanged with the services: values under text keys, in the order in which
/// the keys were first set. A plain value; an instance belongs to one thread at a time. Filling it
/// takes time in proportion to the number of keys, since a service may send a million; `find` looks
/// through all.
class MessageDict {
 public:
  using Entry = std::pair<std::string, MessageValue>;

  MessageDict();
  MessageDict(const MessageDict& other);
  MessageDict(MessageDict&& other) noexcept;
  MessageDict& operator=(const MessageDict& other);
  MessageDict& operator=(MessageDict&& other) noexcept;
  ~MessageDict();

  /// Stores `value` under `key`; a key that is there already keeps its place and gets the new
  /// value. REQUIRES: the key is valid UTF-8 without NUL.
  void set(const std::string& key, MessageValue value);

  /// The value under `key`; null when there is none. Valid until the dictionary is changed.
  [[nodiscard]] const MessageValue* find(std::string_view key) const;

  /// Typed reads: `otherwise` stands when the key is missing or holds a value of another kind.
  [[nodiscard]] std::string text(std::string_view key, const std::string& otherwise) const;
  [[nodiscard]] bool boolean(std::string_view key, bool otherwise) const;
  [[nodiscard]] std::int64_t integer(std::string_view key, std::int64_t otherwise) const;

  /// All entries in order.
  [[nodiscard]] const std::vector<Entry>& entries() const;

  friend bool operator==(const MessageDict& left, const MessageDict& right);

 private:
  struct Index;

  [[nodiscard]] std::size_t positionOf(const std::string& key);

  std::vector<Entry> stored;
  std::unique_ptr<Index> index;  // of `stored`, once it has grown large; copies make their own
};

/// One value of a message: null, a boolean, a 64-bit integer, a text or a dictionary.
class MessageValue {
 public:
  /// The null value.
  MessageValue() = default;

  // Conversions are implicit: a message is written as `request.set(key, value)`.
  MessageValue(bool value);          // NOLINT(google-explicit-constructor)
  MessageValue(std::int64_t value);  // NOLINT(google-explicit-constructor)
  MessageValue(MessageDict value);   // NOLINT(google-explicit-constructor)

  /// A text, or the null value when `value` is not valid UTF-8 or has a NUL byte: the wire carries
  /// neither.
  MessageValue(std::string value);  // NOLINT(google-explicit-constructor)
  MessageValue(const char* value);  // NOLINT(google-explicit-constructor)

  [[nodiscard]] bool isNull() const;

  /// The value as the kind asked for; null when it is of another kind. Valid as long as the value.
  [[nodiscard]] const bool* boolean() const;
  [[nodiscard]] const std::int64_t* integer() const;
  [[nodiscard]] const std::string* text() const;
  [[nodiscard]] const MessageDict* dictionary() const;

  friend bool operator==(const MessageValue& left, const MessageValue& right);

 private:
  std::variant<std::monostate, bool, std::int64_t, std::string, MessageDict> stored;
};
