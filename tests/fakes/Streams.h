#pragma once

#include <algorithm>
#include <istream>
#include <ostream>
#include <set>
#include <sstream>
#include <string>

/// Takes what is written to a stream for as long as it lives.
class CapturedOutput : private std::stringbuf {
 public:
  explicit CapturedOutput(std::ostream& captured)
      : stream(captured), original(captured.rdbuf(this)) {}
  ~CapturedOutput() override { stream.rdbuf(original); }

  [[nodiscard]] std::string text() const { return str(); }

  /// Whether the stream was flushed right behind every line feed.
  [[nodiscard]] bool isFlushedByLine() const {
    const std::string all = str();
    return lineFlushes.size() == static_cast<std::size_t>(std::count(all.begin(), all.end(), '\n'));
  }

 private:
  int sync() override {
    if (pptr() != pbase() && pptr()[-1] == '\n') {
      lineFlushes.insert(pptr() - pbase());
    }
    return 0;
  }

  std::ostream& stream;
  std::streambuf* const original;
  std::set<std::ptrdiff_t> lineFlushes;  // how much had been written at each of them
};

/// Gives a stream a text to read for as long as it lives.
class ScriptedInput : private std::stringbuf {
 public:
  ScriptedInput(std::istream& scripted, const std::string& text)
      : std::stringbuf(text), stream(scripted), original(scripted.rdbuf(this)) {}
  ~ScriptedInput() override { stream.rdbuf(original); }  // this clears the stream's state too

 private:
  std::istream& stream;
  std::streambuf* const original;
};
