#include "collection/CoreDump.h"

#include <climits>
#include <cstdio>

#include "collection/CollectionError.h"
#include "simulator/CoreDumpFolder.h"
#include "tests/collection/DeviceTest.h"

namespace collection {
namespace {

using testing::HasSubstr;

constexpr std::chrono::milliseconds kShort{100};
constexpr std::chrono::milliseconds kNever = std::chrono::hours(1);

class CoreDumpTest : public DeviceTest {
 protected:
  /// Runs vexild, which does this deed before every look at what it has written.
  void run(const std::function<void(int look)>& deed) {
    runVexild();
    isCancelled = [deed, look = 0]() mutable {
      deed(++look);
      return false;
    };
  }

  /// Runs vexild, which does this deed when it is asked for a dump.
  void runThen(const std::function<void()>& deed) {
    run([deed](int look) { look == 2 ? deed() : void(); });
  }

  /// The dump's name and content, or the code and text of the failure.
  std::pair<std::string, std::string> take(std::chrono::milliseconds limit = kNever,
                                           std::chrono::milliseconds wholeTime = kNever) {
    const Deadline deadline(wholeTime, isCancelled);
    try {
      const OpenLog dump = takeCoreDump(paths, request, limit, deadline, report);
      return {dump.record.name, readFile("/proc/self/fd/" + std::to_string(dump.file.get()))};
    } catch (const CollectionError& error) {
      return {error.status == kst::kResultNoCoreDump ? "none" : "other failure", error.what()};
    }
  }

  void expectNone(const std::string& text, std::chrono::milliseconds limit = kNever,
                  std::chrono::milliseconds wholeTime = kNever) {
    const auto [code, told] = take(limit, wholeTime);
    EXPECT_EQ(code, "none");
    EXPECT_THAT(told, HasSubstr(text));
  }

  CollectionRequest request{
      .reason = "[ksttool] test", .resetType = "Hard", .resetSubType = "Other"};
  Report report;
};

// A request that was given up before, and the dump that it gives, are no concern of this one.
TEST_F(CoreDumpTest, GetsTheDumpThatItAskedFor) {
  request.reason.append(10'000, 'x');
  for (const bool isBusy : {false, true}) {
    run([&](int look) {
      const int own = look - (isBusy ? 3 : 0);
      if (own == 0) {
        EXPECT_THAT(vexild->wait({}), testing::ElementsAre("another"));
        makeLog("CoreDump/core-another", "another dump");
      }
      if (own == 1) {  // with the end of the line, written in one piece
        EXPECT_THAT(vexild->wait({}), testing::ElementsAre(testing::AllOf(
                                          testing::StartsWith("Hard\tOther\t[ksttool] testx"),
                                          testing::SizeIs(PIPE_BUF - 1))));
        makeLog("CoreDump/.unfinished", "half a dump");
      }
      if (own == 3) {
        EXPECT_FALSE(simulator::CoreDumpFolder(paths.coreDumps).write("title"));
        vexild.reset();  // it may end right behind that
      }
    });
    if (isBusy) {
      std::ofstream(paths.basebandControl) << "another\n";
    }
    const auto [name, content] = take();
    EXPECT_THAT(name, testing::MatchesRegex("CoreDump/core-.*\\.bin"));
    EXPECT_THAT(content, HasSubstr("\ntitle\n"));
    EXPECT_EQ(readFile(paths.scratch + "/" + name), content);
    EXPECT_EQ(report.entryCount(), 0);
  }
}

TEST_F(CoreDumpTest, TakesNothingButARegularFileThatWasNotThere) {
  makeFile("outside/CoreDump/core-secret", "secret");
  makeLog("CoreDump/core-old", "an earlier dump");
  run([&](int look) {
    if (look == 2) {
      makeLogs("CoreDump/core-fifo| CoreDump/core-folder/ CoreDump/core-link>core-old");
      makeLog("CoreDump/core-gone");
      calls.before = [&, isListed = false](const std::string& function) mutable {
        isListed = isListed || function == "readdir";
        return isListed && function == "openat" &&
                       remove((paths.coreDumps + "/core-gone").c_str()) == 0
                   ? ENOENT
                   : 0;
      };
    }
    if (look == 4) {
      makeLog("CoreDump/core-new", "new");
    }
  });
  EXPECT_EQ(take(), std::pair(std::string("CoreDump/core-new"), std::string("new")));
  EXPECT_THAT(report.info(request, {}),
              testing::AllOf(HasSubstr("CoreDump/core-fifo: left out: a FIFO\n"),
                             HasSubstr("CoreDump/core-folder: left out: no regular file\n"),
                             HasSubstr("CoreDump/core-link: left out: a link\n")));
  EXPECT_EQ(report.entryCount(), 3);
  // Neither the folder nor the one above may be a link; the folder may be made anew.
  for (const std::string& path : {paths.coreDumps, paths.scratch}) {
    runThen([&] {
      kst::support::removeTree(path);
      EXPECT_EQ(symlink((directory / "outside/CoreDump").c_str(), path.c_str()), 0);
    });
    expectNone("open " + paths.coreDumps + ": Not a directory");
    EXPECT_TRUE(kst::support::removeFile(path));
  }
  runThen([&] { makeLog("CoreDump/core-new", "new"); });
  EXPECT_EQ(take().second, "new");

  for (int link = 0; link <= 10'000; ++link) {
    EXPECT_EQ(symlink("none", (paths.coreDumps + "/." + std::to_string(link)).c_str()), 0);
  }
  runThen([] {});
  expectNone("CoreDump holds too much");
}

TEST_F(CoreDumpTest, EndsWithVexildWithItsTimeAndOnRequest) {
  for (const bool isBusy : {false, true}) {
    runThen([&] {
      makeLog("CoreDump/.unfinished", "half a dump");
      vexild.reset();
    });
    const std::string line = isBusy ? "another\n" : "";
    std::ofstream(paths.basebandControl) << line;
    expectNone("vexild ended before it had written a core dump");
    expectNone("vexild does not run");
    int looks = 0;
    run([&](int look) {
      looks = look;
      calls.passed += kShort / 4;
    });
    std::ofstream(paths.basebandControl) << line;
    expectNone("in time", isBusy ? kShort : kNever, isBusy ? kNever : kShort);
    EXPECT_EQ(looks, 4);
  }
  isCancelled = [looks = 0]() mutable { return ++looks > 3; };
  EXPECT_EQ(take().first, "other failure");
}

TEST_F(CoreDumpTest, FailsWithoutAWorkingDaemon) {
  const std::string& path = paths.basebandControl;
  for (const auto& [made, text] :
       {std::pair("", "vexild does not run"),
        {"run/vexild.control", "is no FIFO"},
        {"run/vexild.control>other", "Too many levels of symbolic links"},
        {"run/vexild.control|", "vexild does not run"}}) {
    make(std::string("other| ") + made);
    expectNone(text);
    remove(path.c_str());
    remove((directory / "other").c_str());
  }
  runVexild();
  calls.fail("write", EIO, 0);
  expectNone("write " + path);
}

}  // namespace
}  // namespace collection
