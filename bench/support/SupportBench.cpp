#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
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
using kst::support::pruneDirectory;
using kst::support::removeTree;

void makeFiles(const std::string& pathWithoutNumber, long count) {
  for (long number = 1; number <= count; ++number) {
    std::ofstream file(pathWithoutNumber + std::to_string(number));
  }
}

// Removal of 100,000 files in 1,000 folders, against `rm -rf` of the same tree.

bool removeByProgram(const std::string& path) {
  std::string program = "rm";
  std::string options = "-rf";
  std::string operand = path;
  char* arguments[] = {program.data(), options.data(), operand.data(), nullptr};
  pid_t child = 0;
  int status = 0;
  return posix_spawnp(&child, "rm", nullptr, nullptr, arguments, environ) == 0 &&
         waitpid(child, &status, 0) == child && status == 0;
}

bool removeByPruning(const std::string& path) { return pruneDirectory(path, 0); }

constexpr int kRemovals = 3;

/// One tree for every removal, all made before the first one: after that many files were deleted
/// some file systems take minutes to make new ones.
std::vector<std::string> makeTrees(const TemporaryDirectory& parent, int count) {
  std::vector<std::string> trees;
  for (int number = 0; number < count; ++number) {
    trees.push_back(parent / std::to_string(number));
    mkdir(trees.back().c_str(), 0755);
    for (int folder = 0; folder < 1000; ++folder) {
      const std::string path = trees.back() + "/folder-" + std::to_string(folder);
      mkdir(path.c_str(), 0755);
      makeFiles(path + "/log-", 100);
    }
  }
  return trees;
}

void benchmarkRemoval(benchmark::State& state, bool (*remove)(const std::string&)) {
  static const TemporaryDirectory parent;
  static std::vector<std::string> trees = makeTrees(parent, 3 * kRemovals);
  for ([[maybe_unused]] auto iteration : state) {
    if (trees.empty() || !remove(trees.back())) {
      state.SkipWithError("no tree left, or one that could not be removed");
      return;
    }
    trees.pop_back();
  }
}

void removals(benchmark::internal::Benchmark* benchmark) {
  benchmark->Iterations(kRemovals)->UseRealTime()->Unit(benchmark::kMillisecond);
}
BENCHMARK_CAPTURE(benchmarkRemoval, rm, removeByProgram)->Apply(removals);
BENCHMARK_CAPTURE(benchmarkRemoval, removeTree, removeTree)->Apply(removals);
BENCHMARK_CAPTURE(benchmarkRemoval, pruneDirectory, removeByPruning)->Apply(removals);

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

// Listing of up to 100,000 entries: linear.

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
BENCHMARK_CAPTURE(benchmarkListing, listDirectory, list)->Apply(listingSizes);
BENCHMARK_CAPTURE(benchmarkListing, collectMatchingNames, collect)->Apply(listingSizes);
BENCHMARK_CAPTURE(benchmarkListing, latestNumberedPath, findLatest)->Apply(listingSizes);

}  // namespace
