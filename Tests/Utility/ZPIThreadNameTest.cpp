#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <string>
#include <thread>

#include "Utility/ZPIThreadName.h"

namespace {

std::string nameAfter(const std::string& name) {
  std::array<char, 64> result{};
  std::thread([&result, &name] {
    ZPINameThisThread(name);
    pthread_getname_np(pthread_self(), result.data(), result.size());
  }).join();
  return result.data();
}

TEST(ZPIThreadNameTest, AShortNameIsUsedWhole) {
  EXPECT_EQ(nameAfter("reader"), "reader");
  EXPECT_EQ(nameAfter("fifteen letters"), "fifteen letters");
}

TEST(ZPIThreadNameTest, ALongNameIsTruncatedToTheSystemsLimit) {
  const std::string whole = "a name that is longer than most systems take";
  const std::string name = nameAfter(whole);
  EXPECT_GE(name.size(), 15U);
  EXPECT_EQ(name, whole.substr(0, name.size()));
}

TEST(ZPIThreadNameTest, ANameIsTruncatedBetweenTwoCharacters) {
  // The 15th byte is the first of the umlaut's two.
  EXPECT_EQ(nameAfter("fourteen bytes\xC3\xA4ok"), "fourteen bytes");
  EXPECT_EQ(nameAfter("thirteen byte\xC3\xA4ok"), "thirteen byte\xC3\xA4");
  EXPECT_NE(nameAfter(std::string(20, '\x80')), std::string(20, '\x80'));
}

}  // namespace
