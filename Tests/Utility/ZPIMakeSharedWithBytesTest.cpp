#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "Support/SystemCalls.h"
#include "Utility/ZPIMakeSharedWithBytes.h"

using namespace support;

namespace {

struct Counted {
  Counted() { ++alive; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  ~Counted() { --alive; }

  static inline int alive = 0;
  int64_t field = 7;
};

TEST(ZPIMakeSharedWithBytesTest, AllBytesCanBeWritten) {
  for (const size_t length : {size_t{1}, size_t{7}, size_t{64}, size_t{4096}}) {
    uint8_t* bytes = nullptr;
    const auto object = ZPIMakeSharedWithBytes<Counted>(length, &bytes);
    std::memset(bytes, 0xA5, length);
    EXPECT_EQ(bytes[length - 1], 0xA5);
    EXPECT_EQ(object->field, 7) << "the bytes overlap the object's own field";
  }
}

TEST(ZPIMakeSharedWithBytesTest, TheBytesLiveAsLongAsTheObject) {
  uint8_t* bytes = nullptr;
  auto object = ZPIMakeSharedWithBytes<Counted>(100, &bytes);
  const std::shared_ptr<Counted> other = object;
  object.reset();
  EXPECT_EQ(Counted::alive, 1);
  bytes[99] = 1;
  EXPECT_EQ(other->field, 7);
}

TEST(ZPIMakeSharedWithBytesTest, ObjectAndBytesAreOneAllocation) {
  uint8_t* bytes = nullptr;
  size_t allocations = 0;
  {
    const SystemCalls calls;
    const auto object = ZPIMakeSharedWithBytes<Counted>(100, &bytes);
    allocations = calls.allocations();
  }
  EXPECT_EQ(allocations, 1U);
  EXPECT_EQ(Counted::alive, 0);
}

TEST(ZPIMakeSharedWithBytesTest, AnImpossibleLengthIsRejected) {
  uint8_t* bytes = nullptr;
  EXPECT_THROW(ZPIMakeSharedWithBytes<Counted>(SIZE_MAX, &bytes), std::bad_alloc);
  EXPECT_EQ(Counted::alive, 0);
}

}  // namespace
