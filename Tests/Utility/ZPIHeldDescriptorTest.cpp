#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>
#include <vector>

#include "Utility/ZPIHeldDescriptor.h"

namespace {

using Use = ZPIHeldDescriptor::Use;

TEST(ZPIHeldDescriptorTest, HoldsAnyDescriptorThatIsNotNegative) {
  EXPECT_TRUE(ZPIHeldDescriptor(0).isHeld());
  EXPECT_TRUE(ZPIHeldDescriptor(7).isHeld());
  for (const int32_t none : {-1, -7}) {
    ZPIHeldDescriptor held(none);
    EXPECT_FALSE(held.isHeld());
    EXPECT_FALSE(held.use());
    held.hold(none);
    EXPECT_FALSE(held.isHeld());
  }
}

TEST(ZPIHeldDescriptorTest, AUseReturnsTheDescriptorAndLeavesItHeld) {
  ZPIHeldDescriptor held(7);
  Use use = held.use();
  ASSERT_TRUE(use);
  EXPECT_EQ(use.descriptor(), 7);
  EXPECT_TRUE(use.isHeld());
  EXPECT_FALSE(use.isShared());
  EXPECT_FALSE(use.leave());
  EXPECT_TRUE(held.isHeld());
}

TEST(ZPIHeldDescriptorTest, ASoleUserThatGivesUpCloses) {
  ZPIHeldDescriptor held(7);
  Use use = held.use();
  EXPECT_TRUE(use.giveUp());
  EXPECT_FALSE(held.isHeld());
  EXPECT_FALSE(held.use());
  EXPECT_FALSE(use.isShared());
  EXPECT_TRUE(use.leave());
}

TEST(ZPIHeldDescriptorTest, TheLastOfSeveralUsersCloses) {
  ZPIHeldDescriptor held(7);
  Use writer = held.use();
  Use reader = held.use();
  Use closer = held.use();
  EXPECT_TRUE(closer.giveUp());
  EXPECT_TRUE(closer.isShared());
  EXPECT_FALSE(writer.isHeld());
  EXPECT_FALSE(reader.giveUp());
  EXPECT_FALSE(closer.leave());
  EXPECT_FALSE(writer.leave());
  EXPECT_FALSE(reader.isShared());
  EXPECT_TRUE(reader.leave());
}

TEST(ZPIHeldDescriptorTest, HoldsTheNextOneWhileOldOnesAreInUse) {
  ZPIHeldDescriptor held(0);
  std::vector<Use> old;
  for (int32_t next = 1; next < 5; ++next) {
    old.push_back(held.use());
    Use closer = held.use();
    EXPECT_TRUE(closer.giveUp());
    EXPECT_FALSE(closer.leave());
    held.hold(next);
    Use use = held.use();
    EXPECT_EQ(use.descriptor(), next);
    EXPECT_FALSE(use.leave());
  }
  for (int32_t number = 0; number < 4; ++number) {
    Use& use = old[static_cast<size_t>(number)];
    EXPECT_FALSE(use.isHeld());
    EXPECT_EQ(use.descriptor(), number);
    EXPECT_TRUE(use.leave());
  }
  EXPECT_TRUE(held.isHeld());
}

// Each of a few descriptors stands for a file. It is held, used by several threads, and closed
// exactly one time when nobody uses it any more; only then may it be held again.
TEST(ZPIHeldDescriptorTest, NoUseOutlivesItsDescriptorOnAnyThread) {
  constexpr int32_t kFiles = 8;
  std::array<std::atomic<bool>, kFiles> isFileOpen{};
  std::atomic<bool> isOver{false};
  std::atomic<int> faults{0};
  ZPIHeldDescriptor held(-1);
  const auto leave = [&](Use* use) {
    if (!isFileOpen[static_cast<size_t>(use->descriptor())]) ++faults;
    const int32_t file = use->descriptor();
    if (use->leave() && !isFileOpen[static_cast<size_t>(file)].exchange(false)) ++faults;
  };
  std::vector<std::thread> users;
  for (int user = 0; user < 3; ++user) {
    users.emplace_back([&] {
      while (!isOver) {
        Use use = held.use();
        if (use) leave(&use);
      }
    });
  }
  for (int round = 0; round < 20000; ++round) {
    int32_t file = round % kFiles;
    while (isFileOpen[static_cast<size_t>(file)]) file = (file + 1) % kFiles;
    isFileOpen[static_cast<size_t>(file)] = true;
    held.hold(file);
    Use use = held.use();
    EXPECT_TRUE(use.giveUp());
    leave(&use);
  }
  isOver = true;
  for (std::thread& user : users) user.join();
  EXPECT_EQ(faults, 0);
  for (const std::atomic<bool>& isOpen : isFileOpen) EXPECT_FALSE(isOpen);
}

}  // namespace
