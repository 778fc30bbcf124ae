#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <future>
#include <stdexcept>
#include <thread>

#include "Support/OrdinaryUser.h"

using namespace support;

namespace {

TEST(OrdinaryUserTest, IsNotRootAndReportsItsResult) {
  const ChildResult result = runAsOrdinaryUser([](std::string* message) {
    *message = ::geteuid() == 0 ? "root" : "somebody";
    return 3;
  });
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.message, "somebody");
}

TEST(OrdinaryUserTest, ReportsSignalsAndExceptions) {
  EXPECT_EQ(runInChild([](std::string*) { return ::raise(SIGKILL); }).signal, SIGKILL);
  const ChildResult result =
      runInChild([](std::string*) -> int { throw std::runtime_error("broken"); });
  EXPECT_EQ(result.message, "exception: broken");
  EXPECT_EQ(result.status, 255);
}

TEST(OrdinaryUserTest, WorksWhileOtherThreadsRun) {
  std::promise<void> end;
  std::thread other([&] { end.get_future().wait(); });
  EXPECT_EQ(runAsOrdinaryUser([](std::string*) { return 0; }).status, 0);
  end.set_value();
  other.join();
}

}  // namespace
