#include "platform/device/ProcessQuery.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>

#include "tests/support/TemporaryDirectory.h"

namespace {

/// A process under a name of one's choice. It copies from a pipe that is held here to another one,
/// and so ends no later than this process.
class NamedProcess {
 public:
  explicit NamedProcess(const std::string& name) {
    std::string path = directory / name;
    std::filesystem::create_symlink("/bin/cat", path);
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(output.data(), O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    const std::array<char*, 2> argv = {path.data(), nullptr};
    EXPECT_EQ(posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    // posix_spawn returns before the process has its new name; once it answers, it has.
    char byte = 'x';
    EXPECT_EQ(write(ends[1], &byte, 1), 1);
    EXPECT_EQ(read(output[0], &byte, 1), 1);
  }
  ~NamedProcess() {
    for (const int end : {ends[0], output[0], output[1]}) {
      close(end);
    }
    waitpid(pid, nullptr, 0);
  }

  /// Ends the process; it remains as a zombie.
  void end() const {
    close(ends[1]);
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
  }

 private:
  const TemporaryDirectory directory;
  std::array<int, 2> ends{};  // of its input
  std::array<int, 2> output{};
  pid_t pid = 0;
};

TEST(ProcessQuery, FindsTheExactNameOfARunningProcess) {
  const std::pair<const char*, std::size_t> names[] = {
      {"kst", 14},  {"kst", 15},  {"kst", 16}, {"kst", 40},     {"a) R 1", 15},
      {"(b c", 14}, {") Z ", 15}, {"d\n", 14}, {"(e) S (", 20}, {"\xff\xc3", 14}};
  for (const auto& [prefix, length] : names) {
    std::string name = prefix + std::to_string(getpid());
    name.resize(length, 'x');
    SCOPED_TRACE(name);
    EXPECT_FALSE(isProcessRunning(name));
    const NamedProcess process(name);
    EXPECT_TRUE(isProcessRunning(name));
    const std::string shorter = name.substr(0, length - 1);
    for (const std::string& other :
         {shorter, shorter + "y", name + "x", name.substr(1), "/" + name, std::string()}) {
      EXPECT_FALSE(isProcessRunning(other)) << other;
    }
    process.end();
    EXPECT_FALSE(isProcessRunning(name));
  }
}

}  // namespace
