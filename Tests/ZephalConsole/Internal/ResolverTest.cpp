#include <gtest/gtest.h>

#include <cerrno>

#include "Support/HostNames.h"
#include "ZephalConsole/Errors.h"
#include "ZephalConsole/Internal/Resolver.h"

namespace {

using namespace zephal::internal;
using namespace std::chrono_literals;

TEST(Resolver, TakesNumericAddressesOfBothKinds) {
  Interventions interventions;
  const Stop stop(Deadline::after(0s), interventions);
  EXPECT_EQ(resolve("127.0.0.1", 80, stop, "tcp://x")->ai_family, AF_INET);
  EXPECT_EQ(resolve("::1", 80, stop, "tcp://x")->ai_family, AF_INET6);
}

TEST(Resolver, LooksUpAName) {
  if (!support::resolvesLocalhost())
    GTEST_SKIP() << "no localhost: neither /etc/hosts nor DNS names it";
  Interventions interventions;
  const Stop stop(Deadline::after(20s), interventions);
  EXPECT_NE(resolve("localhost", 80, stop, "tcp://x"), nullptr);
}

TEST(Resolver, SaysThatANameIsUnknown) {
  Interventions interventions;
  const Stop stop(Deadline::after(20s), interventions);
  try {
    resolve("no-such-host.invalid", 80, stop, "tcp://x");
    FAIL();
  } catch (const zephal::OpenError& error) {
    EXPECT_TRUE(std::string(error.what()).starts_with("tcp://x: cannot look up no-such-host"));
  }
}

TEST(Resolver, GivesUpOnANameWhenItIsCancelled) {
  Interventions interventions;
  const Stop stop(Deadline::after(1h), interventions);
  ++interventions.cancels;
  try {
    resolve("no-such-host.invalid", 80, stop, "tcp://x");
    FAIL();
  } catch (const zephal::OpenError& error) {
    EXPECT_TRUE(error.code() == ECANCELED || error.domain() == "getaddrinfo") << error.what();
  }
}

}  // namespace
