#include "collection/CoreDump.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "collection/CollectionError.h"
#include "simulator/CoreDumpFolder.h"
#include "tests/collection/DeviceTest.h"

namespace collection {
namespace {

using testing::HasSubstr;

constexpr std::chrono::milliseconds kShort{100};

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

  /// The dump's name and content, or the code and text of the failure.
  std::pair<std::string, std::string> take(
      std::chrono::milliseconds limit = std::chrono::hours(1)) {
    const Progress progress(std::chrono::hours(1), isCancelled);
    try {
      const OpenLog dump = takeCoreDump(paths, request, limit, progress, report);
      std::string bytes(dump.record.size, '\0');
      EXPECT_EQ(pread(dump.file.get(), bytes.data(), bytes.size(), 0),
                static_cast<ssize_t>(bytes.size()));
      return {dump.record.name, bytes};
    } catch (const CollectionError& error) {
      return {error.status == kst::kResultNoCoreDump ? "none" : "other failure", error.what()};
    }
  }

  void expectNone(const std::string& text, std::chrono::milliseconds limit) {
    const auto [code, told] = take(limit);
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
        EXPECT_EQ(vexild->wait({}), std::vector<std::string>{"another"});
        makeLog("CoreDump/core-another", "another dump");
      }
      if (own == 1) {
        const auto requests = vexild->wait({});
        ASSERT_EQ(requests.size(), 1);
        EXPECT_THAT(requests[0], testing::StartsWith("Hard\tOther\t[ksttool] testx"));
      }
      if (own == 2) {
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
    EXPECT_EQ(contentOf(paths.scratch + "/" + name), content);
    EXPECT_EQ(report.entryCount(), 0);
  }
}

TEST_F(CoreDumpTest, TakesNothingButARegularFileThatWasNotThere) {
  makeFile("outside/CoreDump/core-secret", "secret");
  makeLog("CoreDump/core-old", "an earlier dump");
  run([&](int look) {
    if (look == 2) {
      EXPECT_EQ(mkfifo((paths.coreDumps + "/core-fifo").c_str(), 0644), 0);
      EXPECT_EQ(mkdir((paths.coreDumps + "/core-folder").c_str(), 0755), 0);
      EXPECT_EQ(symlink("core-old", (paths.coreDumps + "/core-link").c_str()), 0);
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
    run([&](int look) {
      if (look == 2) {
        kst::support::removeTree(path);
        EXPECT_EQ(symlink((directory / "outside/CoreDump").c_str(), path.c_str()), 0);
      }
    });
    expectNone("open " + paths.coreDumps + ": Not a directory", std::chrono::hours(1));
    EXPECT_TRUE(kst::support::removeFile(path));
  }
  run([&](int look) {
    if (look == 2) {
      makeLog("CoreDump/core-new", "new");
    }
  });
  EXPECT_EQ(take().second, "new");
}

TEST_F(CoreDumpTest, EndsWithVexildWithItsTimeAndOnRequest) {
  const std::chrono::hours never(1);
  for (const bool isBusy : {false, true}) {
    run([&](int look) {
      if (look == 2) {
        makeLog("CoreDump/.unfinished", "half a dump");
        vexild.reset();
      }
    });
    const std::string line = isBusy ? "another\n" : "";
    std::ofstream(paths.basebandControl) << line;
    expectNone("vexild ended before it had written a core dump", never);
    expectNone("vexild does not run", never);
    run([](int) {});
    std::ofstream(paths.basebandControl) << line;
    const auto start = Progress::Clock::now();
    expectNone("in time", kShort);
    EXPECT_GE(Progress::Clock::now() - start, kShort);
  }
  isCancelled = [looks = 0]() mutable { return ++looks > 3; };
  EXPECT_EQ(take().first, "other failure");
}

TEST_F(CoreDumpTest, FailsWithoutAWorkingDaemon) {
  const std::string& path = paths.basebandControl;
  const std::pair<const char*, std::function<void()>> cases[] = {
      {"vexild does not run", [] {}},
      {"is no FIFO", [&] { makeFile("run/vexild.control", "no FIFO"); }},
      {"Too many levels of symbolic links",
       [&] { makeLink("run/vexild.control", makeFile("target")); }},
      {"Is a directory", [&] { mkdir(path.c_str(), 0755); }},
      {"vexild does not run", [&] { mkfifo(path.c_str(), 0600); }},
      {"write ", [&] {
         runVexild();
         calls.fail("write", EIO);
       }}};
  for (const auto& [text, prepare] : cases) {
    prepare();
    const auto [code, told] = take(kShort);
    EXPECT_EQ(code, "none");
    EXPECT_THAT(told, testing::AllOf(HasSubstr(text), HasSubstr(path)));
    EXPECT_EQ(contentOf(directory / "target"), "");
    remove(path.c_str());
  }
}

}  // namespace
}  // namespace collection
