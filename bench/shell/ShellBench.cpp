#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <string>

#include "shell/CommandBase.h"
#include "shell/CommandShell.h"

namespace {

/// An unnamed file that holds `line` `count` times.
int fileOf(std::int64_t count, const std::string& line) {
  std::string text;
  for (std::int64_t i = 0; i < count; ++i) {
    text += line;
  }
  std::FILE* const file = std::tmpfile();  // never closed
  if (!file || std::fwrite(text.data(), 1, text.size(), file) != text.size() ||
      std::fflush(file) != 0) {
    std::abort();
  }
  return fileno(file);
}

/// Measures whole processes that do `work`, with `input` as standard input and /dev/null as
/// standard output. `work` returns whether it has done what it is measured for.
void runProcesses(benchmark::State& state, int input, const std::function<bool()>& work) {
  for ([[maybe_unused]] auto iteration : state) {
    lseek(input, 0, SEEK_SET);
    const pid_t child = fork();
    if (child == 0) {
      dup2(input, STDIN_FILENO);
      dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
      const bool isDone = work();
      std::cout.flush();
      _exit(isDone ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0) {
      std::abort();
    }
  }
  state.SetComplexityN(state.range(0));
}

std::int64_t optionRuns = 0;

/// A node whose option counts its runs.
class Node : public CommandBase {
 public:
  static std::shared_ptr<Node> create(const std::string& nodeName,
                                      const std::weak_ptr<CommandBase>& parentNode = {}) {
    std::shared_ptr<Node> node(new Node(nodeName, parentNode));
    node->initialize();
    return node;
  }

  std::shared_ptr<Node> addChild(const std::string& childName) {
    auto child = create(childName, weak_from_this());
    addSubCommand(childName, child);
    return child;
  }

 protected:
  void registerOptions() override {
    addOption(
        "option", [](const TaskGroup&, const std::list<std::string>&) { return ++optionRuns > 0; },
        "an option");
  }

 private:
  using CommandBase::CommandBase;
};

class Shell : public CommandShell {
 protected:
  std::shared_ptr<CommandBase> createRootCommand() override {
    auto root = Node::create("ksttool");
    root->addChild("group");
    return root;
  }
};

constexpr const char* kLine = "group option word word\n";
constexpr const char* kPrompt = "(/ksttool)>> ";

void runShell(benchmark::State& state) {
  runProcesses(state, fileOf(state.range(0), kLine), [&] {
    Shell().run({"ksttool"});
    return optionRuns == state.range(0);
  });
}

/// The least that anything with a prompt does.
void runBareLoop(benchmark::State& state) {
  runProcesses(state, fileOf(state.range(0), kLine), [&] {
    std::int64_t lines = -1;
    std::string line;
    do {
      ++lines;
      std::cout << kPrompt;
    } while (std::getline(std::cin, line));
    return lines == state.range(0);
  });
}

void printHelp(benchmark::State& state) {
  const std::shared_ptr<Node> root = Node::create("root");
  for (std::int64_t group = 0; group < state.range(0) / 10; ++group) {
    const std::shared_ptr<Node> child = root->addChild("group" + std::to_string(group));
    for (int i = 1; i < 10; ++i) {
      child->addChild("command" + std::to_string(i));
    }
  }
  runProcesses(state, STDIN_FILENO, [&] {
    root->printHelp();
    return std::cout.good();
  });
}

BENCHMARK(runShell)
    ->Arg(25'000)
    ->Arg(50'000)
    ->Arg(100'000)
    ->Complexity(benchmark::oN)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(runBareLoop)
    ->Arg(25'000)
    ->Arg(50'000)
    ->Arg(100'000)
    ->Complexity(benchmark::oN)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(printHelp)
    ->Arg(2'500)
    ->Arg(5'000)
    ->Arg(10'000)
    ->Complexity(benchmark::oN)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
