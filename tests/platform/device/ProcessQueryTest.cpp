#include "platform/device/ProcessQuery.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

TEST(ProcessQuery, FindsTheExactNameOfARunningProcess) {
  const std::pair<const char*, std::size_t> names[] = {
      {"kst", 14},  {"kst", 15},  {"kst", 16}, {"kst", 40},     {"a) R 1", 15},
      {"(b c", 14}, {") Z ", 15}, {"d\n", 14}, {"(e) S (", 20}, {"\xff\xc3", 14}};
  for (const auto& [prefix, length] : names) {
    std::string name = prefix + std::to_string(getpid());
    name.resize(length, 'x');
    SCOPED_TRACE(name);
    EXPECT_FALSE(isProcessRunning(name));
    const TemporaryDirectory directory;
    std::filesystem::create_symlink("/bin/sh", directory / name);
    // A shell of that name, which ends when its input does, so no later than this process.
    FILE* const process = popen(("exec '" + (directory / name) + "'").c_str(), "w");
    EXPECT_TRUE(eventually([&] { return isProcessRunning(name); }));
    const std::string shorter = name.substr(0, length - 1);
    for (const std::string& other :
         {shorter, shorter + "y", name + "x", name.substr(1), "/" + name, std::string()}) {
      EXPECT_FALSE(isProcessRunning(other)) << other;
    }
    fputs("exit\n", process);
    fflush(process);
    siginfo_t info;
    waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);  // it remains as a zombie
    EXPECT_FALSE(isProcessRunning(name));
    pclose(process);
  }
}
