// What other users of the machine, and programs that the station starts, get to see.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

#include "Data Server/ZPKTCPServer.h"
#include "Data Stack/ZPKCommLoggerStack.h"
#include "Data Stack/ZPKCommStack.h"
#include "Support/Files.h"
#include "Support/SimulatedDevice.h"
#include "Support/StandardOutputCapture.h"
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
  for (const mode_t mask : {0000, 0022, 0027, 0077}) {
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

// The files behind the descriptors that a program has which is started now. Its own pipe and its
// own folder have numbers and paths that nothing else has.
std::set<std::string> filesOfStartedProgram() {
  std::set<std::string> files;
  FILE* const pipe = ::popen("exec ls -l /proc/self/fd", "r");
  std::string line;
  for (int byte = std::fgetc(pipe); byte != EOF; byte = std::fgetc(pipe)) {
    if (byte != '\n') {
      line += static_cast<char>(byte);
      continue;
    }
    const size_t arrow = line.find(" -> ");
    if (arrow != std::string::npos) files.insert(line.substr(arrow + 4));
    line.clear();
  }
  ::pclose(pipe);
  std::erase_if(files, [](const std::string& file) {
    return file.starts_with("pipe:") || file.starts_with("/proc/");
  });
  return files;
}

// Opens and closes everything that has a descriptor, until it is told to stop.
void openAndClose(const std::atomic<bool>& isDone, std::atomic<size_t>* rounds) {
  const TemporaryFolder folder;
  SimulatedDevice terminal(DeviceKind::kTerminal);
  const SimulatedDevice tcp(DeviceKind::kTCP);
  const SimulatedDevice local(DeviceKind::kUnix);
  for (; !isDone; ++*rounds) {
    Arrivals arrivals;
    const auto server = startTCPServerOnPort(0, arrivals.takeChannels());
    const std::string served = "tcp://127.0.0.1:" + std::to_string(portOf(server->handle()));
    for (const std::string& url : {terminal.url(), tcp.url(), local.url(), served}) {
      const auto stack = ZPKCommStack::init();
      stack->setActiveChannelOnOff(true);
      stack->setLogFilePath(folder.pathOf("post.log"), folder.pathOf("pre.log"));
      EXPECT_TRUE(stack->createStackWithURL(url) && stack->openWithTimeout(30)) << url;
      stack->close();
    }
    terminal.liftExclusiveHold();
    EXPECT_TRUE(arrivals.waitForCount(1));
    server->stop();
  }
}

// A flag that is set after a descriptor was made would leave a moment in which it is inherited.
TEST(HostileNeighboursTest, ProgramsStartedMeanwhileInheritNothing) {
  const StandardOutputCapture output;  // of the servers
  const std::set<std::string> before = filesOfStartedProgram();
  std::atomic<bool> isDone{false};
  std::atomic<size_t> rounds{0};
  std::thread opener([&] { openAndClose(isDone, &rounds); });
  std::set<std::string> inherited;
  for (int i = 0; i < 100; ++i) inherited.merge(filesOfStartedProgram());
  while (rounds < 3) inherited.merge(filesOfStartedProgram());
  isDone = true;
  opener.join();
  std::erase_if(inherited, [&](const std::string& file) { return before.contains(file); });
  EXPECT_THAT(inherited, IsEmpty());
}

}  // namespace
