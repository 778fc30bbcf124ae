// Logs whose folder goes away.
#include <ZephalConsole/Console.h>
#include <ZephalIO/ZephalIO.h>
#include <ZephalSimulator/SimulatedDevice.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "Crashes/Aside.h"
#include "Crashes/LibraryLines.h"
#include "Crashes/Recording.h"
#include "Support/CheckedCalls.h"
#include "Support/Files.h"
#include "Support/LogFile.h"
#include "Support/TemporaryFolder.h"

namespace {

using namespace support;
using namespace zephal;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

void becomeNobody() {
  constexpr uid_t kNobody = 65534;
  if (::geteuid() != 0) return;
  checked(::setgroups(0, nullptr), "setgroups");
  checked(::setgid(kNobody), "setgid");
  checked(::setuid(kNobody), "setuid");
}

class LostFolder : public testing::Test {
 protected:
  LostFolder() { std::filesystem::create_directory(_logs); }

  // Makes the folder unusable, each way in its own process.
  void inEachWay(const std::function<void(const std::function<void()>& lose)>& part) {
    const std::vector<std::function<void()>> ways{
        [this] { std::filesystem::remove_all(_logs); },
        [this] { std::filesystem::rename(_logs, _logs + ".moved"); },
        [this] { checked(::chmod(_logs.c_str(), 0), "chmod"); },
    };
    for (const auto& lose : ways) {
      std::filesystem::remove_all(_logs);
      std::filesystem::remove_all(_logs + ".moved");
      runAside([&] {
        becomeNobody();  // root may enter any folder
        std::filesystem::create_directory(_logs);
        part(lose);
      });
      ::chmod(_logs.c_str(), 0755);
    }
  }

  void bringBack() {
    if (std::filesystem::exists(_logs)) {
      checked(::chmod(_logs.c_str(), 0755), "chmod");
    } else {
      std::filesystem::create_directory(_logs);
    }
  }

  const TemporaryFolder _folder;
  const std::string _logs = _folder.pathOf("logs");
};

TEST_F(LostFolder, BeforeOpenFailsTheOpenUntilItIsBack) {
  inEachWay([this](const auto& lose) {
    const LibraryLines lines;
    Recording recording(_logs);
    lose();
    EXPECT_FALSE(recording.recorder().open());
    EXPECT_EQ(lines.all().size(), 1U) << testing::PrintToString(lines.all());
    bringBack();
    EXPECT_TRUE(recording.recorder().open() && recording.pass(10));
    EXPECT_TRUE(recording.recorder().close());
    EXPECT_EQ(numbersOf(recording.chunksOf(recording.log())), range(0, 10));
  });
}

TEST_F(LostFolder, WhileOpenStopsNeitherTrafficNorLog) {
  inEachWay([this](const auto& lose) {
    const LibraryLines lines;
    Recording recording(_logs);
    ASSERT_TRUE(recording.recorder().open() && recording.pass(10));
    lose();
    EXPECT_TRUE(recording.pass(10));
    EXPECT_TRUE(recording.recorder().close());
    EXPECT_THAT(lines.all(), IsEmpty());
    const std::string moved = _logs + ".moved/log";
    if (std::filesystem::exists(moved)) {
      EXPECT_EQ(numbersOf(recording.chunksOf(moved)), range(0, 20));
    }
  });
}

TEST_F(LostFolder, BeforeAReopenFailsItUntilItIsBack) {
  inEachWay([this](const auto& lose) {
    const LibraryLines lines;
    Recording recording(_logs);
    ASSERT_TRUE(recording.recorder().open() && recording.pass(10));
    lose();
    EXPECT_TRUE(recording.recorder().close());
    EXPECT_FALSE(recording.recorder().open());
    EXPECT_EQ(recording.recorder().isOpen(), 0);
    EXPECT_EQ(lines.all().size(), 1U) << testing::PrintToString(lines.all());
    bringBack();
    EXPECT_TRUE(recording.recorder().open() && recording.pass(10));
    EXPECT_TRUE(recording.recorder().close());
    EXPECT_EQ(numbersOf(recording.chunksOf(recording.log())).back(), 19U);
  });
}

TEST_F(LostFolder, DoesNotDisturbAConsoleUntilItsLogsAreClosed) {
  SimulatedDevice device(DeviceKind::kUnix, {.prompt = "# ", .responses = {{"hi", "there\n"}}});
  Console dut(device.url(), {.prompt = "# ", .log = _logs + "/log", .rawLog = _logs + "/raw"});
  EXPECT_EQ(dut.ask("hi"), "there\n");
  std::filesystem::rename(_logs, _logs + ".moved");
  EXPECT_EQ(dut.ask("hi"), "there\n");
  dut.reopen();
  EXPECT_EQ(dut.ask("hi"), "there\n");
  dut.close();
  EXPECT_EQ(joinedTextOfLog(_logs + ".moved/log", "post--read"), "there# there# there# ");
  const LibraryLines lines;
  EXPECT_THROW(dut.reopen(0s), OpenError);
  std::filesystem::create_directory(_logs);
  dut.reopen();
  EXPECT_EQ(dut.ask("hi"), "there\n");
  dut.close();
  EXPECT_EQ(joinedTextOfLog(_logs + "/log", "post--read"), "there# ");
}

}  // namespace
