#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <numeric>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Support/BusyWriter.h"
#include "Support/Bytes.h"
#include "Support/EventWait.h"
#include "Support/Files.h"
#include "Support/HeldLogWrite.h"
#include "Support/LoggingChannelFixture.h"
#include "Support/OpenDescriptors.h"
#include "Support/OrdinaryUser.h"
#include "Support/ThreadCalls.h"

using namespace support;

namespace {

using testing::ElementsAre;

class ZPILoggingChannelForkTest : public LoggingChannelFixture {
 protected:
  // When the child is forked, the parent's thread is in the middle of a write, and a further chunk
  // is pending.
  ChildResult forkDuringAWrite(const ChildFunction& child) {
    open();
    HeldLogWrite held;
    write("first");
    EXPECT_TRUE(held.waitUntilHeld());
    write("second");
    ChildResult result = runInChild(child);
    held.release();
    return result;
  }
};

TEST_F(ZPILoggingChannelForkTest, AChildCanWriteAndClose) {
  const ChildResult result = forkDuringAWrite([this](std::string*) {
    if (!write("child") || readOf("2.33")->view() != "2.33") return 1;
    return _channel->close(nullptr) && _channel->fileHandle() == nullptr ? 0 : 2;
  });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: child", "pre---read: 2.33", "pre--write: first",
                                   "pre--write: second"));
  EXPECT_NE(linesOfLog(_path).front().process, std::to_string(::getpid()));
}

TEST_F(ZPILoggingChannelForkTest, AChildsCallsReturnWithTheirLinesInTheFile) {
  const ChildResult result = forkDuringAWrite([this](std::string*) {
    write("asynchronous");
    if (texts().size() != 1) return 1;
    _channel->setSynchronousLogging(true);
    write("synchronous");
    return texts().size() == 2 ? 0 : 2;
  });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
  _channel->close(nullptr);
  EXPECT_EQ(texts().size(), 4U);
}

TEST_F(ZPILoggingChannelForkTest, TheChildDoesNotWriteTheParentsPendingLines) {
  const ChildResult result =
      forkDuringAWrite([this](std::string*) { return _channel->close(nullptr) ? 0 : 1; });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
  EXPECT_TRUE(write("third"));
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: first", "pre--write: second", "pre--write: third"));
}

TEST_F(ZPILoggingChannelForkTest, AChildCanDropTheChannel) {
  open();
  write("ver");
  EXPECT_TRUE(waitFor([this] { return texts().size() == 1; }));
  const ChildResult unused = runInChild([this](std::string*) {
    _channel.reset();
    return 0;
  });
  EXPECT_EQ(unused.status, 0) << "signal " << unused.signal;
  const ChildResult used = runInChild([this](std::string*) {
    write("child");
    _channel.reset();
    return 0;
  });
  EXPECT_EQ(used.status, 0) << "signal " << used.signal;
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver", "pre--write: child"));
}

TEST_F(ZPILoggingChannelForkTest, ADroppedChannelClosesItsFileInAChildToo) {
  const std::set<int> before = openDescriptors();
  open();
  write("ver");
  EXPECT_TRUE(waitFor([this] { return texts().size() == 1; }));
  const std::set<int> withFile = openDescriptors();
  const ChildResult result = runInChild([&](std::string*) {
    const size_t count = openDescriptors().size();
    write("child");
    _channel.reset();
    return openDescriptors().size() + (withFile.size() - before.size()) == count ? 0 : 1;
  });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
}

TEST_F(ZPILoggingChannelForkTest, AChildCanReopenTheLog) {
  open();
  write("parent");
  EXPECT_TRUE(waitFor([this] { return texts().size() == 1; }));
  const ChildResult result = runInChild([this](std::string*) {
    const RefusedThreads refused;  // see runInChild
    for (const char* text : {"one", "two"}) {
      _below->setOpened(false);
      if (!_channel->openWithTimeout(1.0, nullptr) || !write(text)) return 1;
      if (!_channel->close(nullptr)) return 2;
    }
    return 0;
  });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: parent", "pre--write: one", "pre--write: two"));
}

// The numbers at the ends of the lines with one identifier; fast even for a long log.
std::vector<size_t> numbersOfLog(const std::string& path, const std::string& identifier) {
  std::vector<size_t> numbers;
  std::istringstream lines(contentsOfFile(path));
  for (std::string line; std::getline(lines, line);) {
    if (line.find(" <" + identifier + ">[") == std::string::npos) continue;
    numbers.push_back(std::stoul(line.substr(line.find("]: ") + 3)));
  }
  return numbers;
}

// The fork may find the other threads anywhere, with any lock of the channel held.
TEST_F(ZPILoggingChannelForkTest, ForksDuringTrafficNeitherHangNorWriteTwice) {
  if (!canChildAlwaysAllocate()) {
    GTEST_SKIP()
        << "AddressSanitizer's allocator may hang in a forked child; other builds test this";
  }
  constexpr size_t kForks = 50;
  open();
  BusyWriter writer(
      [this](size_t number) { _channel->logData(dataOf(std::to_string(number)), "busy"); });
  for (size_t i = 0; i < kForks; ++i) {
    const ChildResult result = runInChild([&](std::string*) {
      _channel->logData(dataOf(std::to_string(i)), "child");
      return _channel->close(nullptr) ? 0 : 1;
    });
    ASSERT_EQ(result.status, 0) << "signal " << result.signal;
  }
  const size_t writes = writer.stop();
  _channel->close(nullptr);
  for (const auto& [identifier, count] : {std::pair("busy", writes), std::pair("child", kForks)}) {
    std::vector<size_t> expected(count);
    std::iota(expected.begin(), expected.end(), size_t{0});
    EXPECT_TRUE(numbersOfLog(_path, identifier) == expected) << identifier;
  }
}

}  // namespace
