#include "support/TreeRemoval.h"

#include <gmock/gmock.h>

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
    make("outside/kept=kept tree/pipe| file dangling>none link>outside slashed>outside");
    make("tree/a/link>../../outside tree/file>../outside/kept tree/loop>loop");
    makeFile("tree/a/" + oddName + "/..hidden");
    SystemCalls calls;
    calls.typesAreUnknown = typesAreUnknown;
    for (const std::string name : {"tree/", "none", "link", "slashed//", "file", "dangling"}) {
      EXPECT_TRUE(removeTree(directory / name)) << name;
    }
    EXPECT_EQ(tree(), "dangling>none outside/kept=kept");
    EXPECT_TRUE(removeFile(directory / "dangling"));
  }
}

TEST_F(TreeRemovalTest, RemovesATreeDeeperThanAnyPathWithTwoDescriptors) {
  Descriptor folder(openPath(directory.path, O_RDONLY, 0));
  for (int level = 0; level < 3000; ++level) {
    ASSERT_EQ(mkdirat(folder.get(), "folder", 0755), 0);
    folder = Descriptor(openat(folder.get(), "folder", O_RDONLY));
  }
  folder.close();
  {
    const ResourceLimit two(RLIMIT_NOFILE, openDescriptors() + 2);
    EXPECT_TRUE(pruneDirectory(directory.path, 0));
  }
  EXPECT_EQ(tree(), "");
}

TEST_F(TreeRemovalTest, StopsAtTheFirstEntryThatStays) {
  const std::tuple<std::string, int, std::string, int> faults[] = {
      {"unlinkat", EBUSY, "", EBUSY},    {"readdir", EIO, "", EISDIR}, {"fstat", EIO, "", EIO},
      {"openat", EMFILE, "", EISDIR},    {"fstat", EIO, "/d/f", EIO},  // on the way back up
      {"openat", EMFILE, "/d/f", EMFILE}};
  for (const auto& [function, error, below, told] : faults) {
    make("tree/a/d/f tree/b/d/f tree/c/d/f");
    const std::vector<std::string> listed = namesIn(directory / "tree");
    const std::string first = directory / "tree/" + (below.empty() ? listed[0] : listed[1] + below);
    SystemCalls calls;
    calls.before = [&, failing = function, code = error](const std::string& called) {
      return called == failing && !pathExists(first) ? code : 0;
    };
    EXPECT_EQ(errorOf(removeTree(directory / "tree")), told) << function;
    calls.before = nullptr;
    EXPECT_THAT(namesIn(directory / "tree"), testing::ElementsAre(listed[1], listed[2]))
        << function;
  }
}

// Whatever step of the removal the folder's owner plays his trick before.
TEST_F(TreeRemovalTest, CannotBeLedAstray) {
  const std::tuple<std::string, std::string, unsigned> tricks[] = {
      {"tree/a", "tree/link", RENAME_EXCHANGE},
      {"tree/a/b", "tree/a/link", RENAME_EXCHANGE},
      {"tree/a/b", "outside/b/b", RENAME_NOREPLACE},
      {"tree/a/b/b", "outside/b/b", RENAME_NOREPLACE}};
  const std::string files[] = {"/a/c", "/a/b/b/c", "/a/b/b/d/e", "/a/d/e", "/b/c", "/b/d/e", "/c"};
  for (const auto& [from, to, how] : tricks) {
    int played = 0;
    for (const char* const function : {"openat", "unlinkat"}) {
      bool isReached = true;
      for (int step = 1; isReached; ++step) {
        for (const std::string& file : files) {
          make("tree" + file + " outside" + file);
        }
        make("tree/link>../outside tree/a/link>../../outside");
        SystemCalls calls;
        isReached = false;
        calls.at(
            function, step, [&, source = directory / from, target = directory / to, flags = how] {
              isReached = true;
              played +=
                  renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), flags) == 0 ? 1 : 0;
            });
        errno = 0;
        const bool removed = removeTree(directory / "tree");
        EXPECT_EQ(errorOf(removed), removed ? 0 : ENOENT);
        calls.before = nullptr;
        for (const std::string& file : files) {
          ASSERT_TRUE(pathExists(directory / "outside" + file)) << from << " at step " << step;
        }
        EXPECT_TRUE(pruneDirectory(directory.path, 0));
      }
    }
    EXPECT_GT(played, 1) << from;  // on tmpfs, whose order of entries is another, twice
  }
}

}  // namespace
}  // namespace kst::support
