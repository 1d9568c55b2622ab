#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "shell/CommandBase.h"
#include "shell/CommandShell.h"

namespace {

/// While it lives, standard input is a pipe that delivers `count` lines, and standard output goes
/// to /dev/null.
class PipedLines {
 public:
  PipedLines(std::int64_t count, const std::string& line)
      : input(dup(STDIN_FILENO)), output(dup(STDOUT_FILENO)) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
      std::abort();
    }
    move(ends[0], STDIN_FILENO);
    move(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    writer = std::thread([count, line, end = ends[1]] { write(end, count, line); });
    std::cin.clear();
  }
  PipedLines(const PipedLines&) = delete;
  PipedLines& operator=(const PipedLines&) = delete;
  ~PipedLines() {
    writer.join();
    std::cout.flush();
    move(input, STDIN_FILENO);
    move(output, STDOUT_FILENO);
  }

 private:
  static void move(int from, int to) {
    dup2(from, to);
    close(from);
  }

  static void write(int end, std::int64_t count, const std::string& line) {
    std::string text;
    for (std::int64_t i = 0; i < count; ++i) {
      text += line;
    }
    for (std::size_t done = 0; done < text.size();) {
      const ssize_t n = ::write(end, text.data() + done, text.size() - done);
      if (n < 0) {
        std::abort();
      }
      done += static_cast<std::size_t>(n);
    }
    close(end);
  }

  int input;
  int output;
  std::thread writer;
};

/// A node whose options do nothing.
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
        "option", [](const TaskGroup&, const std::list<std::string>&) { return true; },
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
  for ([[maybe_unused]] auto iteration : state) {
    const PipedLines lines(state.range(0), kLine);
    Shell().run({"ksttool"});
  }
  state.SetComplexityN(state.range(0));
}

/// The least that anything with a prompt does.
void runBareLoop(benchmark::State& state) {
  for ([[maybe_unused]] auto iteration : state) {
    const PipedLines lines(state.range(0), kLine);
    std::string line;
    do {
      std::cout << kPrompt;
    } while (std::getline(std::cin, line));
  }
  state.SetComplexityN(state.range(0));
}

void printHelp(benchmark::State& state) {
  const std::shared_ptr<Node> root = Node::create("root");
  for (std::int64_t group = 0; group < state.range(0) / 10; ++group) {
    const std::shared_ptr<Node> child = root->addChild("group" + std::to_string(group));
    for (int i = 1; i < 10; ++i) {
      child->addChild("command" + std::to_string(i));
    }
  }
  for ([[maybe_unused]] auto iteration : state) {
    const PipedLines nothing(0, "");
    root->printHelp();
  }
  state.SetComplexityN(state.range(0));
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
