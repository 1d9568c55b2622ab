#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "support/FileOperations.h"
#include "support/LogDirectory.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using kst::support::collectMatchingNames;
using kst::support::copyFile;
using kst::support::latestNumberedPath;
using kst::support::listDirectory;

void makeFiles(const std::string& pathWithoutNumber, long count) {
  for (long number = 1; number <= count; ++number) {
    std::ofstream file(pathWithoutNumber + std::to_string(number));
  }
}

// Copying, against the system calls that a copy with a buffer of 1024 bytes cannot do without.

bool copyBare(const std::string& source, const std::string& destination) {
  const int from = open(source.c_str(), O_RDONLY);
  const int to = open(destination.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  char buffer[1024];
  ssize_t count = 0;
  bool written = true;
  while (written && (count = read(from, buffer, sizeof(buffer))) > 0) {
    written = write(to, buffer, static_cast<size_t>(count)) == count;
  }
  close(to);
  close(from);
  return written && count == 0;
}

bool copyBySupport(const std::string& source, const std::string& destination) {
  return copyFile(source, destination, false);
}

void benchmarkCopy(benchmark::State& state, bool (*copy)(const std::string&, const std::string&)) {
  constexpr size_t kSize = 16 << 20;
  const TemporaryDirectory directory;
  std::ofstream(directory / "source") << std::string(kSize, 'x');
  for ([[maybe_unused]] auto iteration : state) {
    if (!copy(directory / "source", directory / "destination")) {
      state.SkipWithError("the file could not be copied");
      return;
    }
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kSize));
}
BENCHMARK_CAPTURE(benchmarkCopy, bareLoop, copyBare)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(benchmarkCopy, copyFile, copyBySupport)->Unit(benchmark::kMillisecond);

// Listing of up to 100,000 entries, linear, against a loop that only reads the directory.

/// A directory of `count` entries. Made once: some file systems are slow to reuse what was deleted
/// just before.
std::string directoryOf(long count) {
  static const TemporaryDirectory directories;
  std::string path = directories / std::to_string(count);
  if (mkdir(path.c_str(), 0755) == 0) {
    makeFiles(path + "/bb-", count);
  }
  return path;
}

size_t listBare(const std::string& directory) {
  DIR* stream = opendir(directory.c_str());
  size_t count = 0;
  while (readdir(stream) != nullptr) {
    ++count;
  }
  closedir(stream);
  return count;
}

size_t list(const std::string& directory) {
  std::vector<std::string> names;
  listDirectory(directory, names);
  return names.size();
}

size_t collect(const std::string& directory) {
  std::vector<std::string> names;
  collectMatchingNames(directory, std::regex("bb-[[:alnum:]]*"), names, false);
  return names.size();
}

size_t findLatest(const std::string& directory) {
  return latestNumberedPath(directory + "/bb").size();
}

void benchmarkListing(benchmark::State& state, size_t (*walk)(const std::string&)) {
  const std::string directory = directoryOf(state.range(0));
  for ([[maybe_unused]] auto iteration : state) {
    benchmark::DoNotOptimize(walk(directory));
  }
  state.SetComplexityN(state.range(0));
}

void listingSizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->RangeMultiplier(10)
      ->Range(1000, 100000)
      ->Unit(benchmark::kMillisecond)
      ->Complexity(benchmark::oN);
}
BENCHMARK_CAPTURE(benchmarkListing, bareLoop, listBare)->Apply(listingSizes);
BENCHMARK_CAPTURE(benchmarkListing, listDirectory, list)->Apply(listingSizes);
BENCHMARK_CAPTURE(benchmarkListing, collectMatchingNames, collect)->Apply(listingSizes);
BENCHMARK_CAPTURE(benchmarkListing, latestNumberedPath, findLatest)->Apply(listingSizes);

}  // namespace
