// What other users of the machine, and programs that the station starts, get to see.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "Data Server/ZPKTCPServer.h"
#include "Data Stack/ZPKCommLoggerStack.h"
#include "Data Stack/ZPKCommStack.h"
#include "Support/Files.h"
#include "Support/SimulatedDevice.h"
#include "Support/StandardOutputCapture.h"
#include "Support/StartedPrograms.h"
#include "Support/TCPServerFixture.h"
#include "Support/TemporaryFolder.h"

using namespace support;

namespace {

using testing::IsEmpty;
using zephal::DeviceKind;

// Talks to a device with both logs of both kinds of stack.
void logEverything(const TemporaryFolder& folder) {
  SimulatedDevice device(DeviceKind::kUnix, {.responses = {{"version", "1.0\n"}}});
  const auto stack = ZPKCommStack::init();
  stack->setDelimiter("=> ");
  stack->setLogFilePath(folder.pathOf("post.log"), folder.pathOf("pre.log"));
  ASSERT_TRUE(stack->createStackWithURL(device.url()) && stack->openWithTimeout(30));
  EXPECT_EQ(stack->sendCommandString("version", 30), "1.0\n=> ");
  EXPECT_TRUE(stack->close());
  const auto recorder = ZPKCommLoggerStack::init();
  recorder->setLogFilePath(folder.pathOf("recorder-post.log"), folder.pathOf("recorder-pre.log"));
  ASSERT_TRUE(recorder->createStackWithURL(device.url()) && recorder->open());
  EXPECT_TRUE(recorder->close());
}

class FileMask {
 public:
  explicit FileMask(mode_t mask) : _before(::umask(mask)) {}
  FileMask(const FileMask&) = delete;
  FileMask& operator=(const FileMask&) = delete;
  ~FileMask() { ::umask(_before); }

 private:
  const mode_t _before;
};

TEST(HostileNeighboursTest, TheUmaskDecidesWhoReadsTheLogs) {
  for (const mode_t mask : {0000U, 0022U, 0027U, 0077U}) {
    const TemporaryFolder folder;
    const FileMask file(mask);
    logEverything(folder);
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      EXPECT_EQ(permissionsOfFile(entry.path()), 0666 & ~mask) << entry.path();
      ++count;
    }
    EXPECT_EQ(count, 4U);
  }
}

// Whoever may write to the folder of a log decides what it is appended to.
TEST(HostileNeighboursTest, ALogAtASymbolicLinkOnlyAppendsToItsTarget) {
  const TemporaryFolder folder;
  const std::string target = folder.pathOf("target");
  writeFile(target, "what was there before\n");
  ASSERT_EQ(::chmod(target.c_str(), 0640), 0);
  for (const char* name : {"post.log", "pre.log", "recorder-post.log", "recorder-pre.log"}) {
    ASSERT_EQ(::symlink(target.c_str(), folder.pathOf(name).c_str()), 0);
  }
  logEverything(folder);
  EXPECT_TRUE(contentsOfFile(target).starts_with("what was there before\n"));
  EXPECT_NE(contentsOfFile(target).find("version"), std::string::npos);
  EXPECT_EQ(permissionsOfFile(target), 0640U);
  EXPECT_TRUE(std::filesystem::is_symlink(folder.pathOf("post.log")));
}

// A flag that is set after a descriptor was made would leave a moment in which it is inherited.
TEST(HostileNeighboursTest, ProgramsStartedMeanwhileInheritNothing) {
  const StandardOutputCapture output;  // of the servers
  const TemporaryFolder folder;
  SimulatedDevice terminal(DeviceKind::kTerminal);
  const SimulatedDevice tcp(DeviceKind::kTCP);
  const SimulatedDevice local(DeviceKind::kUnix);
  const auto openAndClose = [&](const std::string& url) {
    const auto stack = ZPKCommStack::init();
    stack->setActiveChannelOnOff(true);
    stack->setLogFilePath(folder.pathOf("post.log"), folder.pathOf("pre.log"));
    EXPECT_TRUE(stack->createStackWithURL(url) && stack->openWithTimeout(30)) << url;
    stack->close();
  };
  const auto inherited = descriptorsInheritedDuring([&] {
    Arrivals arrivals;
    const auto server = startTCPServerOnPort(0, arrivals.takeChannels());
    for (const auto& url : {terminal.url(), tcp.url(), local.url()}) openAndClose(url);
    openAndClose("tcp://127.0.0.1:" + std::to_string(portOf(server->handle())));
    terminal.liftExclusiveHold();
    EXPECT_TRUE(arrivals.waitForCount(1));
    server->stop();
  });
  EXPECT_THAT(inherited, IsEmpty());
}

}  // namespace
