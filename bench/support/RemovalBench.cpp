// Removal of whole trees by this library, by the standard library and by `rm -rf`.
//
// All trees are made before the first one is removed: after a mass deletion some file systems take
// minutes to make new files. Which tree a removal gets and what was removed right before it makes
// as much as half of its time, so the order rotates from round to round: over all rounds, each way
// to remove has had each place equally often. bench/compare takes the medians.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/Descriptor.h"
#include "support/FileOperations.h"
#include "support/LogDirectory.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using kst::support::Descriptor;

/// 100,000 files in 1,000 folders.
void makeWideTree(int directory) {
  for (int folder = 0; folder < 1000; ++folder) {
    const std::string name = "folder-" + std::to_string(folder);
    mkdirat(directory, name.c_str(), 0755);
    for (int number = 0; number < 100; ++number) {
      const std::string file = name + "/log-" + std::to_string(number);
      const Descriptor made(openat(directory, file.c_str(), O_WRONLY | O_CREAT, 0644));
    }
  }
}

/// 10,000 folders, each in the one before.
void makeDeepTree(int directory) {
  Descriptor parent(openat(directory, ".", O_RDONLY));
  for (int level = 0; level < 10000; ++level) {
    mkdirat(parent.get(), "folder", 0755);
    parent = Descriptor(openat(parent.get(), "folder", O_RDONLY));
  }
}

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

bool removeByStandardLibrary(const std::string& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
  return !error;
}

bool removeByPruning(const std::string& path) { return kst::support::pruneDirectory(path, 0); }

struct Way {
  const char* name;
  bool (*remove)(const std::string&);
};

constexpr Way kProgram = {"rm", removeByProgram};
constexpr Way kRemoveTree = {"removeTree", kst::support::removeTree};
constexpr Way kPruneDirectory = {"pruneDirectory", removeByPruning};
constexpr Way kStandardLibrary = {"remove_all", removeByStandardLibrary};

struct Trees {
  Trees(void (*make)(int), int count) {
    for (int number = 0; number < count; ++number) {
      mkdir(path(number).c_str(), 0755);
      make(Descriptor(open(path(number).c_str(), O_RDONLY)).get());
    }
  }

  [[nodiscard]] std::string path(long number) const { return parent / std::to_string(number); }

  const TemporaryDirectory parent;
};

/// Removes the tree of the number that the benchmark has as argument; the label names the way.
void benchmarkRemoval(benchmark::State& state, const Trees& trees, const std::vector<Way>& ways) {
  const auto number = static_cast<size_t>(state.range(0));
  const size_t round = number / ways.size();
  const Way& way = ways[(round + number) % ways.size()];
  state.SetLabel(way.name);
  for ([[maybe_unused]] auto iteration : state) {
    if (!way.remove(trees.path(state.range(0)))) {
      state.SkipWithError("the tree could not be removed");
      return;
    }
  }
}

void wide(benchmark::State& state) {
  static const Trees trees(makeWideTree, 16);
  benchmarkRemoval(state, trees, {kProgram, kRemoveTree, kPruneDirectory, kStandardLibrary});
}
BENCHMARK(wide)->DenseRange(0, 15)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void deep(benchmark::State& state) {
  static const Trees trees(makeDeepTree, 16);
  benchmarkRemoval(state, trees, {kProgram, kRemoveTree});
}
BENCHMARK(deep)->DenseRange(0, 15)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
