#include "Crashes/Aside.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>

#include "RealPrograms/Support/RealProgram.h"
#include "Support/CheckedCalls.h"

namespace support {
namespace {

[[noreturn]] void runAndExit(const std::function<void()>& part) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    part();
  } catch (const std::exception& exception) {
    ADD_FAILURE() << exception.what();
  }
  std::fflush(nullptr);
  ::_exit(testing::Test::HasFailure() ? 1 : 0);
}

}  // namespace

void runAside(const std::function<void()>& part) {
  std::fflush(nullptr);
  const pid_t process = checked(::fork(), "fork");
  if (process == 0) runAndExit(part);
  int status = 0;
  const auto hasEnded = [&] { return ::waitpid(process, &status, WNOHANG) == process; };
  if (!waitFor(hasEnded)) {
    ::kill(process, SIGKILL);
    ::waitpid(process, &status, 0);
  }
  EXPECT_EQ(status, 0) << "in a process aside";
}

}  // namespace support
