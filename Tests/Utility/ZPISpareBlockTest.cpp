#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>

#include "Support/ProcessStatus.h"
#include "Support/SystemCalls.h"
#include "Utility/ZPIBlock.h"
#include "Utility/ZPISpareBlock.h"
#include "Utility/ZPKMutableData.h"

using namespace support;

namespace {

constexpr size_t kLarge = 300'000;

// Memory for a large read.
ZPISpareBlock::Room takeForRead(size_t size) {
  ZPISpareBlock::prepareRead(size);
  return ZPISpareBlock::take(size);
}

// Keeps a block of `size` bytes on the calling thread.
void keep(size_t size) {
  const ZPISpareBlock::Room room = takeForRead(size);
  std::memset(room.block, 'x', room.size);
  ZPISpareBlock::release(room.block, room.size);
}

// Whether the calling thread keeps a block that can serve for `size` bytes. Frees it if so.
bool isKept(size_t size) {
  SystemCalls calls;
  const ZPISpareBlock::Room room = ZPISpareBlock::take(size);
  const bool isKept = calls.allocations() == 0;
  if (room.block != nullptr) std::memset(room.block, 'y', room.size);
  std::free(room.block);
  return isKept;
}

ZPKMutableDataPtr dataOver(const ZPISpareBlock::Room& room) {
  return ZPKMutableData::dataWithBytesNoCopy(room.block, room.size, room.size);
}

class ZPISpareBlockTest : public testing::Test {
 protected:
  ZPISpareBlockTest() { ZPISpareBlock::drop(); }
  ~ZPISpareBlockTest() override { ZPISpareBlock::drop(); }
};

// --- What is kept.

TEST_F(ZPISpareBlockTest, AReleasedBlockServesTheNextReadOnce) {
  keep(kLarge);
  SystemCalls calls;
  const ZPISpareBlock::Room room = takeForRead(kLarge - 1);
  EXPECT_EQ(calls.allocations(), 0U);
  EXPECT_EQ(room.size, kLarge);
  EXPECT_FALSE(isKept(kLarge));
  ZPISpareBlock::release(room.block, room.size);
  EXPECT_TRUE(isKept(kLarge));
}

TEST_F(ZPISpareBlockTest, ABlockThatIsTooSmallStaysWhereItIs) {
  keep(kLarge);
  EXPECT_FALSE(isKept(kLarge + 1));
  EXPECT_TRUE(isKept(kLarge));
}

TEST_F(ZPISpareBlockTest, ABlockThatIsMuchTooLargeStaysWhereItIs) {
  keep(ZPISpareBlock::kLargest);
  EXPECT_FALSE(isKept(ZPISpareBlock::kLargest / 8 - 1));
  EXPECT_TRUE(isKept(ZPISpareBlock::kLargest / 8));
}

TEST_F(ZPISpareBlockTest, SmallAndVeryLargeBlocksAreFreed) {
  keep(kLarge);
  ZPISpareBlock::drop();
  for (const size_t size : {ZPISpareBlock::kSmallest - 1, ZPISpareBlock::kLargest + 1}) {
    keep(size);
    EXPECT_FALSE(isKept(size)) << size;
  }
  for (const size_t size : {ZPISpareBlock::kSmallest, ZPISpareBlock::kLargest}) {
    keep(size);
    EXPECT_TRUE(isKept(size)) << size;
  }
}

TEST_F(ZPISpareBlockTest, TheLargerOfTwoBlocksIsKept) {
  const ZPISpareBlock::Room smaller = takeForRead(kLarge);
  const ZPISpareBlock::Room larger = takeForRead(kLarge + 1);
  const ZPISpareBlock::Room another = takeForRead(kLarge);
  ZPISpareBlock::release(smaller.block, smaller.size);
  ZPISpareBlock::release(larger.block, larger.size);
  ZPISpareBlock::release(another.block, another.size);
  EXPECT_TRUE(isKept(kLarge + 1));
  EXPECT_FALSE(isKept(kLarge));
}

TEST_F(ZPISpareBlockTest, WithoutMemoryTheBlockIsNull) {
  SystemCalls calls;
  calls.failAllocation();
  EXPECT_EQ(takeForRead(kLarge).block, nullptr);
}

TEST_F(ZPISpareBlockTest, NoBlockCanBeReleased) {
  ZPISpareBlock::prepareRead(kLarge);
  ZPISpareBlock::release(nullptr, 0);
  EXPECT_FALSE(isKept(kLarge));
}

// --- Which thread keeps one, and how long.

TEST_F(ZPISpareBlockTest, AThreadThatDoesNotReadKeepsNone) {
  const ZPISpareBlock::Room room = ZPISpareBlock::take(kLarge);
  ZPISpareBlock::release(room.block, room.size);
  EXPECT_FALSE(isKept(kLarge));
}

TEST_F(ZPISpareBlockTest, ADropLastsUntilTheNextRead) {
  const ZPISpareBlock::Room late = takeForRead(kLarge);
  keep(kLarge);
  ZPISpareBlock::drop();
  EXPECT_FALSE(isKept(kLarge));
  ZPISpareBlock::release(late.block, late.size);
  EXPECT_FALSE(isKept(kLarge));
  keep(kLarge);
  EXPECT_TRUE(isKept(kLarge));
}

TEST_F(ZPISpareBlockTest, EachThreadKeepsItsOwn) {
  keep(kLarge);
  const ZPISpareBlock::Room room = takeForRead(kLarge);
  std::thread([&] {
    EXPECT_FALSE(isKept(kLarge));
    ZPISpareBlock::release(room.block, room.size);
    EXPECT_FALSE(isKept(kLarge));
    keep(kLarge);
    EXPECT_TRUE(isKept(kLarge));
  }).join();
  EXPECT_FALSE(isKept(kLarge));
}

// How much more memory is in use after `body` has run on a thread.
size_t leftBy(const std::function<void()>& body) {
  const size_t before = allocatedBytes();
  std::thread(body).join();
  const size_t after = allocatedBytes();
  return after > before ? after - before : 0;
}

TEST_F(ZPISpareBlockTest, ABlockIsFreedWithItsThread) {
  EXPECT_LT(leftBy([] { keep(ZPISpareBlock::kLargest); }), kLarge);
}

TEST_F(ZPISpareBlockTest, ABlockIsFreedWhenItsThreadIsCancelled) {
  const size_t before = allocatedBytes();
  pthread_t thread{};
  const auto body = [](void*) -> void* {
    keep(ZPISpareBlock::kLargest);
    for (;;) {
      pthread_testcancel();
      sched_yield();
    }
  };
  ASSERT_EQ(pthread_create(&thread, nullptr, body, nullptr), 0);
  pthread_cancel(thread);
  pthread_join(thread, nullptr);
  EXPECT_LT(allocatedBytes(), before + kLarge);
}

// Holds data until after the thread has freed its block.
struct LateHolder {
  ZPKMutableDataPtr data;
  bool readsAgain = false;
  ~LateHolder() {
    data = nullptr;
    if (readsAgain) keep(ZPISpareBlock::kLargest);
  }
};

TEST_F(ZPISpareBlockTest, DataReleasedAfterTheBlockWasFreedIsFreedToo) {
  for (const bool readsAgain : {false, true}) {
    const size_t left = leftBy([readsAgain] {
      // Destroyed last, because it exists before the thread keeps its first block.
      static thread_local LateHolder holder;
      holder.readsAgain = readsAgain;
      holder.data = dataOver(takeForRead(ZPISpareBlock::kLargest));
      keep(kLarge);
    });
    EXPECT_LT(left, kLarge);
  }
}

[[noreturn]] void exitWithDataInAStaticObject() {
  static LateHolder holder;
  holder.readsAgain = true;
  holder.data = dataOver(takeForRead(kLarge));
  keep(kLarge);
  std::exit(0);
}

// In a program of its own: what only another thread refers to would be a leak in a forked child.
TEST_F(ZPISpareBlockTest, DataInAStaticObjectCanBeReleasedAtExit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exitWithDataInAStaticObject(), testing::ExitedWithCode(0), "");
}

TEST_F(ZPISpareBlockTest, AChildProcessHasTheBlockOfTheForkingThread) {
  keep(kLarge);
  const pid_t child = ::fork();
  if (child == 0) ::_exit(isKept(kLarge) ? 0 : 1);
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(isKept(kLarge));
}

#ifdef __SANITIZE_ADDRESS__
TEST_F(ZPISpareBlockTest, AccessToAKeptBlockIsAnError) {
  const ZPISpareBlock::Room room = takeForRead(kLarge);
  auto* const bytes = static_cast<volatile char*>(room.block);
  bytes[0] = 'x';
  ZPISpareBlock::release(room.block, room.size);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(bytes[0] = 'y', "AddressSanitizer");
}
#endif

// --- Who uses it.

TEST_F(ZPISpareBlockTest, DataKeepTheirBlockWhenTheyAreReleased) {
  dataOver(takeForRead(kLarge));
  EXPECT_TRUE(isKept(kLarge));
}

TEST_F(ZPISpareBlockTest, ABufferThatIsEmptiedGivesItsBlock) {
  const ZPKMutableDataPtr data = dataOver(takeForRead(kLarge));
  std::memset(data->mutableBytes(), 'x', kLarge);
  data->dropFirst(kLarge - 10);
  EXPECT_EQ(data->view(), "xxxxxxxxxx");
  EXPECT_TRUE(isKept(kLarge));
}

TEST_F(ZPISpareBlockTest, AShortBufferThatGrowsTakesIt) {
  keep(kLarge);
  const std::string more(kLarge - 4, 'x');
  const ZPKMutableDataPtr data = ZPKMutableData::dataWithCapacity(100);
  data->append("rest", 4);
  SystemCalls calls;
  data->append(more.data(), more.size());
  EXPECT_EQ(calls.allocations(), 0U);
  EXPECT_EQ(data->view(), "rest" + more);
}

}  // namespace
