#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "Support/OrdinaryUser.h"
#include "Utility/ZPIProcessID.h"

using namespace support;

namespace {

TEST(ZPIProcessIDTest, IsTheNumberOfTheProcess) {
  EXPECT_EQ(ZPIProcessID(), ::getpid());
  EXPECT_EQ(ZPIProcessID(), ::getpid());
}

TEST(ZPIProcessIDTest, AChildAndAGrandchildHaveTheirOwn) {
  ASSERT_EQ(ZPIProcessID(), ::getpid());
  const ChildResult result = runInChild([](std::string*) {
    if (ZPIProcessID() != ::getpid() || ZPIProcessID() != ::getpid()) return 1;
    return runInChild([](std::string*) { return ZPIProcessID() == ::getpid() ? 0 : 1; }).status;
  });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
  EXPECT_EQ(ZPIProcessID(), ::getpid());
}

// Such a child runs no handlers of pthread_atfork(3).
TEST(ZPIProcessIDTest, AChildOfABareSystemCallHasItsOwn) {
  ASSERT_EQ(ZPIProcessID(), ::getpid());
  const auto child = static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
  if (child == 0) ::_exit(ZPIProcessID() == ::syscall(SYS_getpid) ? 0 : 1);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
