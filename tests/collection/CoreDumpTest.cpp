#include "collection/CoreDump.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "simulator/ControlPipe.h"
#include "simulator/CoreDumpFolder.h"
#include "tests/collection/TemporaryDevice.h"

namespace collection {
namespace {

using testing::HasSubstr;

constexpr std::chrono::seconds kLimit{10};

class CoreDumpTest : public testing::Test {
 protected:
  CoreDumpTest() {
    request.resetType = "Hard";
    request.resetSubType = "OtherErrors";
    request.reason = "[ksttool] test";
  }

  Failure take(std::chrono::milliseconds limit = kLimit) {
    return takeCoreDump(paths, request, limit, name);
  }

  const TemporaryDevice device;
  const DevicePaths& paths = device.paths();
  CollectionRequest request;
  std::string name;
};

TEST_F(CoreDumpTest, GetsTheNewDump) {
  writeFile(paths.coreDumps + "/core-old.bin", "an earlier dump");
  writeFile(paths.coreDumps + "/.unfinished", "an abandoned dump");
  simulator::ControlPipe control;
  ASSERT_FALSE(control.open(paths.basebandControl));
  request.reason.append(10'000, 'x');
  std::thread daemon([&] {
    const auto requests = control.wait(kLimit);
    ASSERT_EQ(requests.size(), 1);
    EXPECT_THAT(requests[0], testing::StartsWith("Hard\tOtherErrors\t[ksttool] test"));
    EXPECT_FALSE(simulator::CoreDumpFolder(paths.coreDumps).write("title"));
  });
  EXPECT_FALSE(take());
  daemon.join();
  EXPECT_THAT(readFile(paths.coreDumps + "/" + name), HasSubstr("\ntitle\n"));
}

TEST_F(CoreDumpTest, NoticesThatTheDaemonEnds) {
  auto control = std::make_unique<simulator::ControlPipe>();
  ASSERT_FALSE(control->open(paths.basebandControl));
  std::thread daemon([&] {
    static_cast<void>(control->wait(kLimit));
    writeFile(paths.coreDumps + "/.unfinished", "half a dump");
    control.reset();
  });
  const Failure failure = take(std::chrono::hours(1));
  daemon.join();
  EXPECT_THAT(failure.value_or(""), HasSubstr("vexild ended"));
}

TEST_F(CoreDumpTest, FailsWithoutAWorkingDaemon) {
  EXPECT_THAT(take().value_or(""), HasSubstr("vexild does not run"));

  writeFile(paths.basebandControl, "no FIFO");
  EXPECT_THAT(take().value_or(""), HasSubstr("is no FIFO"));
  EXPECT_EQ(readFile(paths.basebandControl), "no FIFO");

  std::filesystem::remove(paths.basebandControl);
  ASSERT_EQ(mkfifo(paths.basebandControl.c_str(), 0600), 0);
  EXPECT_THAT(take().value_or(""), HasSubstr("vexild does not run"));

  simulator::ControlPipe deaf;
  ASSERT_FALSE(deaf.open(paths.basebandControl));
  EXPECT_THAT(take(std::chrono::milliseconds(50)).value_or(""), HasSubstr("within 50 ms"));
}

}  // namespace
}  // namespace collection
