#include "platform/message/MessageDict.h"

#include <algorithm>
#include <unordered_map>

#include "platform/message/Utf8.h"

namespace {

/// Up to here, looking through all keys is cheaper than an index of them.
constexpr std::size_t kFewEntries = 32;

}  // namespace

/// Where each key stands.
struct MessageDict::Index : std::unordered_map<std::string, std::size_t> {};

MessageDict::MessageDict() = default;
MessageDict::MessageDict(const MessageDict& other) : stored(other.stored) {}
MessageDict::MessageDict(MessageDict&& other) noexcept = default;
MessageDict& MessageDict::operator=(const MessageDict& other) { return *this = MessageDict(other); }
MessageDict& MessageDict::operator=(MessageDict&& other) noexcept = default;
MessageDict::~MessageDict() = default;

void MessageDict::set(const std::string& key, MessageValue value) {
  const std::size_t position = positionOf(key);
  if (position < stored.size()) {
    stored[position].second = std::move(value);
  } else {
    stored.emplace_back(key, std::move(value));
  }
}

/// Where the key stands, or is going to.
std::size_t MessageDict::positionOf(const std::string& key) {
  if (stored.size() < kFewEntries) {
    const auto isAsked = [&](const Entry& entry) { return entry.first == key; };
    return static_cast<std::size_t>(std::find_if(stored.begin(), stored.end(), isAsked) -
                                    stored.begin());
  }
  if (!index) {
    index = std::make_unique<Index>();
    for (std::size_t i = 0; i < stored.size(); ++i) {
      index->emplace(stored[i].first, i);
    }
  }
  return index->emplace(key, stored.size()).first->second;
}

const MessageValue* MessageDict::find(std::string_view key) const {
  for (const auto& [name, value] : stored) {
    if (name == key) {
      return &value;
    }
  }
  return nullptr;
}

std::string MessageDict::text(std::string_view key, const std::string& otherwise) const {
  const MessageValue* value = find(key);
  const std::string* text = value ? value->text() : nullptr;
  return text ? *text : otherwise;
}

bool MessageDict::boolean(std::string_view key, bool otherwise) const {
  const MessageValue* value = find(key);
  const bool* boolean = value ? value->boolean() : nullptr;
  return boolean ? *boolean : otherwise;
}

std::int64_t MessageDict::integer(std::string_view key, std::int64_t otherwise) const {
  const MessageValue* value = find(key);
  const std::int64_t* integer = value ? value->integer() : nullptr;
  return integer ? *integer : otherwise;
}

const std::vector<MessageDict::Entry>& MessageDict::entries() const { return stored; }

bool operator==(const MessageDict& left, const MessageDict& right) {
  return left.stored == right.stored;
}

MessageValue::MessageValue(bool value) : stored(value) {}
MessageValue::MessageValue(std::int64_t value) : stored(value) {}
MessageValue::MessageValue(MessageDict value) : stored(std::move(value)) {}
MessageValue::MessageValue(const char* value) : MessageValue(std::string(value)) {}

MessageValue::MessageValue(std::string value) {
  if (isMessageText(value)) {
    stored = std::move(value);
  }
}

bool MessageValue::isNull() const { return std::holds_alternative<std::monostate>(stored); }
const bool* MessageValue::boolean() const { return std::get_if<bool>(&stored); }
const std::int64_t* MessageValue::integer() const { return std::get_if<std::int64_t>(&stored); }
const std::string* MessageValue::text() const { return std::get_if<std::string>(&stored); }
const MessageDict* MessageValue::dictionary() const { return std::get_if<MessageDict>(&stored); }

bool operator==(const MessageValue& left, const MessageValue& right) {
  return left.stored == right.stored;
}
