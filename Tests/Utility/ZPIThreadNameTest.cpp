#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <string>
#include <thread>

#include "Utility/ZPIThreadName.h"

namespace {

std::string nameAfter(const char* name) {
  std::array<char, 64> result{};
  std::thread([&result, name] {
    ZPINameThisThread(name);
    pthread_getname_np(pthread_self(), result.data(), result.size());
  }).join();
  return result.data();
}

TEST(ZPIThreadNameTest, AShortNameIsTakenWhole) {
  EXPECT_EQ(nameAfter("reader"), "reader");
  EXPECT_EQ(nameAfter("fifteen letters"), "fifteen letters");
}

TEST(ZPIThreadNameTest, ALongNameIsCutToWhatTheSystemTakes) {
  const std::string whole = "a name that is longer than most systems take";
  const std::string name = nameAfter(whole.c_str());
  EXPECT_GE(name.size(), 15U);
  EXPECT_EQ(name, whole.substr(0, name.size()));
}

}  // namespace
