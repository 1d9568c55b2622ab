#include "support/TreeRemoval.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <tuple>

#include "support/FileOperations.h"
#include "support/LogDirectory.h"
#include "tests/fakes/SystemCalls.h"
#include "tests/support/FileSystemTest.h"

namespace kst::support {
namespace {

using TreeRemovalTest = FileSystemTest;

TEST_F(TreeRemovalTest, RemovesATreeButNothingThatLinksLeadTo) {
  for (const bool typesAreUnknown : {false, true}) {
    const std::string outside = makeFile("outside/kept", "kept");
    makeFile("tree/a/" + oddName + "/.hidden");
    for (const char* name : {"tree/a/link", "tree/link", "link", "slashed"}) {
      makeLink(name, directory / "outside");
    }
    makeLink("tree/file", outside);
    makeFile("file");
    makeLink("tree/loop", "loop");
    makeLink("dangling", "none");
    mkfifo((directory / "tree/pipe").c_str(), 0644);
    SystemCalls calls;
    calls.typesAreUnknown = typesAreUnknown;
    for (const std::string name : {"tree/", "none", "link", "slashed//", "file", "dangling"}) {
      EXPECT_TRUE(removeTree(directory / name)) << name;
    }
    EXPECT_TRUE(isSymbolicLink(directory / "dangling") && removeFile(directory / "dangling"));
    EXPECT_TRUE(entries() == std::vector<std::string>{"outside"} && contentOf(outside) == "kept");
  }
}

TEST_F(TreeRemovalTest, RemovesATreeDeeperThanAnyPathWithTwoDescriptors) {
  Descriptor folder(openPath(directory.path, O_RDONLY, 0));
  for (int level = 0; level < 3000; ++level) {
    ASSERT_EQ(mkdirat(folder.get(), "folder", 0755), 0);
    folder = Descriptor(openat(folder.get(), "folder", O_RDONLY));
  }
  folder.close();
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit two{static_cast<rlim_t>(openDescriptors() + 2), limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &two);
  EXPECT_TRUE(pruneDirectory(directory.path, 0));
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_TRUE(entries().empty());
}

TEST_F(TreeRemovalTest, StopsAtTheFirstEntryThatStays) {
  const std::tuple<std::string, int, std::string, int> faults[] = {
      {"unlinkat", EBUSY, "", EBUSY},    {"readdir", EIO, "", EISDIR}, {"fstat", EIO, "", EIO},
      {"openat", EMFILE, "", EISDIR},    {"fstat", EIO, "/d/f", EIO},  // on the way back up
      {"openat", EMFILE, "/d/f", EMFILE}};
  for (const auto& [function, error, below, told] : faults) {
    for (const char* name : {"tree/a/d/f", "tree/b/d/f", "tree/c/d/f"}) {
      makeFile(name);
    }
    const std::vector<std::string> listed = entries("tree");
    const std::string first = directory / "tree/" + (below.empty() ? listed[0] : listed[1] + below);
    SystemCalls calls;
    calls.before = [&, function = function, error = error](const std::string& called) {
      return called == function && !pathExists(first) ? error : 0;
    };
    EXPECT_EQ(errorOf(removeTree(directory / "tree")), told) << function;
    calls.before = nullptr;
    EXPECT_THAT(entries("tree"), testing::ElementsAre(listed[1], listed[2])) << function;
  }
}

TEST_F(TreeRemovalTest, RemovesFoldersWithoutPermissionOnlyIfTheyAreEmpty) {
  overridePermissions(false);
  const std::string folder = directory / "tree/folder";
  for (const mode_t mode : {0U, 0333U, 0444U, 0555U}) {
    makeFile("tree/folder/file");
    EXPECT_TRUE(changeMode(folder, mode));
    EXPECT_EQ(errorOf(removeTree(directory / "tree")), (mode & 0444) != 0 ? EACCES : EISDIR);
    EXPECT_TRUE(changeMode(folder, 0755) && pathExists(folder + "/file"));
    EXPECT_TRUE(removeFile(folder + "/file") && changeMode(folder, mode));
    EXPECT_TRUE(removeTree(directory / "tree") && !pathExists(directory / "tree"));
  }
  makeFile("tree/folder/empty/file");
  EXPECT_TRUE(pruneDirectory(folder + "/empty", 0) && changeMode(folder, 0555));
  EXPECT_TRUE(removeTree(directory / "tree") && removeTree(folder + "/empty"));
  EXPECT_TRUE(pathExists(folder + "/empty") && changeMode(folder, 0755));
}

// Whatever step of the removal the folder's owner plays his trick before.
TEST_F(TreeRemovalTest, CannotBeLedAstray) {
  const std::string tree = directory / "tree";
  const std::string outside = directory / "outside";
  const std::tuple<std::string, std::string, unsigned> tricks[] = {
      {tree + "/a", tree + "/link", RENAME_EXCHANGE},
      {tree + "/a/b", tree + "/a/link", RENAME_EXCHANGE},
      {tree + "/a/b", outside + "/b/b", RENAME_NOREPLACE},
      {tree + "/a/b/b", outside + "/b/b", RENAME_NOREPLACE}};
  const char* const files[] = {"/a/c", "/a/b/b/c", "/a/b/b/d/e", "/a/d/e", "/b/c", "/b/d/e", "/c"};
  for (const auto& [from, to, how] : tricks) {
    int played = 0;
    int steps = 1;
    for (int moment = 0; moment / 2 < steps; ++moment) {
      for (const std::string name : files) {
        makeFile("tree" + name);
        makeFile("outside" + name);
      }
      makeLink("tree/link", outside);
      makeLink("tree/a/link", outside);
      int step = 0;
      SystemCalls calls;
      calls.before = [&, from = from, to = to, how = how](const std::string& function) {
        if (function == "openat" || function == "unlinkat") {
          if (step++ == moment / 2) {
            played += renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), how) == 0 ? 1 : 0;
          }
          steps = std::max(steps, step);
        }
        return 0;
      };
      errno = 0;
      const bool removed = moment % 2 == 0 ? pruneDirectory(tree, 0) : removeTree(tree);
      EXPECT_EQ(errorOf(removed), removed ? 0 : ENOENT);
      calls.before = nullptr;
      for (const std::string name : files) {
        ASSERT_TRUE(pathExists(outside + name)) << from << " before step " << moment / 2;
      }
      EXPECT_TRUE(pruneDirectory(directory.path, 0));
    }
    EXPECT_GT(played, 2) << from;
  }
}

}  // namespace
}  // namespace kst::support
