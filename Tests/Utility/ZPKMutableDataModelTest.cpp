// All operations together, in random order, compared with strings.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>

#include "Support/Bytes.h"
#include "Utility/ZPIRangeEnd.h"
#include "Utility/ZPKMutableData.h"

using namespace support;

namespace {

std::string randomBytes(std::mt19937& random, size_t length) {
  std::string bytes(length, '\0');
  for (char& byte : bytes) byte = "\0ab\n"[random() % 4];
  return bytes;
}

class BufferAndModel {
 public:
  void check() const { ASSERT_EQ(buffer->view(), model); }

  ZPKMutableDataPtr buffer = ZPKMutableData::data();
  std::string model;
};

class RandomEdits {
 public:
  explicit RandomEdits(unsigned seed) : _random(seed) {}

  void step() {
    BufferAndModel& one = _pairs[below(3)];
    BufferAndModel& other = _pairs[below(3)];
    switch (below(16)) {
      case 0: appendBytes(one); break;
      case 1: appendOwnPart(one); break;
      case 2: appendOther(one, other); break;
      case 3: appendGivingUp(one, other); break;
      case 4: setContents(one, other); break;
      case 5: setLength(one); break;
      case 6: zeroRange(one); break;
      case 7: dropFirst(one); break;
      case 8: takeFirst(one, other); break;
      case 9: swap(one, other); break;
      case 10: writeByte(one); break;
      case 11: giveUp(one); break;
      case 12: moveFirst(one, other); break;
      case 13: one.buffer = unitOf(one.model); break;
      default: find(one); break;
    }
    one.check();
    other.check();
  }

 private:
  size_t below(size_t limit) { return limit == 0 ? 0 : _random() % limit; }
  // Mostly small, sometimes beyond the size of a block that is always kept.
  size_t size() { return below(10) == 0 ? below(6000) : below(40); }

  void appendBytes(BufferAndModel& one) {
    const std::string bytes = randomBytes(_random, size());
    one.buffer->append(bytes.data(), bytes.size());
    one.model += bytes;
  }

  void appendOwnPart(BufferAndModel& one) {
    if (one.model.size() > 10000) return;
    const size_t at = below(one.model.size());
    const size_t length = below(one.model.size() - at + 1);
    one.buffer->append(one.buffer->bytes() + at, length);
    one.model += one.model.substr(at, length);
  }

  void appendOther(BufferAndModel& one, const BufferAndModel& other) {
    if (one.model.size() > 10000) return;
    one.buffer->append(*other.buffer);
    one.model += other.model;
  }

  void appendGivingUp(BufferAndModel& one, BufferAndModel& other) {
    if (&one == &other) return;
    one.buffer->appendGivingUp(other.buffer.get());
    one.model += other.model;
    other.model.clear();
  }

  void setContents(BufferAndModel& one, const BufferAndModel& other) {
    one.buffer->setContents(*other.buffer);
    one.model = other.model;
  }

  void setLength(BufferAndModel& one) {
    const size_t length = size();
    one.buffer->setLength(length);
    one.model.resize(length, '\0');
  }

  void zeroRange(BufferAndModel& one) {
    const size_t at = below(one.model.size() + 2);
    const size_t length = size();
    one.buffer->zeroRange({at, length});
    for (size_t i = at; i < std::min(one.model.size(), at + length); ++i) one.model[i] = '\0';
  }

  void dropFirst(BufferAndModel& one) {
    const size_t count = below(one.model.size() + 3);
    one.buffer->dropFirst(count);
    one.model.erase(0, count);
  }

  void takeFirst(BufferAndModel& one, BufferAndModel& other) {
    if (&one == &other) return;
    const size_t count = below(one.model.size() + 3);
    other.buffer = one.buffer->takeFirst(count);
    other.model = one.model.substr(0, count);
    one.model.erase(0, count);
  }

  void moveFirst(BufferAndModel& one, BufferAndModel& other) {
    if (&one == &other) return;
    const size_t count = below(one.model.size() + 3);
    one.buffer->moveFirst(count, other.buffer.get());
    other.model = one.model.substr(0, count);
    one.model.erase(0, count);
  }

  void swap(BufferAndModel& one, BufferAndModel& other) {
    one.buffer->swap(*other.buffer);
    if (&one != &other) one.model.swap(other.model);
  }

  void writeByte(BufferAndModel& one) {
    if (one.model.empty()) return;
    const size_t at = below(one.model.size());
    uint8_t* const pointer = one.buffer->mutableBytes();
    if (below(2) == 0) find(one);
    pointer[at] = 'b';
    one.model[at] = 'b';
  }

  void giveUp(BufferAndModel& one) {
    ZPKDataPtr given = one.buffer;
    if (below(2) == 0) one.buffer = nullptr;
    one.buffer = ZPKMutableData::mutableCopyGivingUp(std::move(given));
  }

  void find(BufferAndModel& one) {
    static const std::array<std::string, 5> patterns = {"ab", "a\nb\nab", "bbbbbb", "\n",
                                                        std::string("\0\0a", 3)};
    const std::string& pattern = patterns[below(patterns.size())];
    const size_t expected = one.model.find(pattern);
    const ZPKRange found = one.buffer->resumeFind(*dataOf(pattern));
    ASSERT_EQ(found.location, expected == std::string::npos ? ZPKNotFound : expected);
    ASSERT_EQ(one.buffer->find(*dataOf(pattern)), found);
    ASSERT_EQ(found.length, expected == std::string::npos ? 0 : pattern.size());
  }

  std::mt19937 _random;
  std::array<BufferAndModel, 3> _pairs;
};

TEST(ZPKMutableDataModelTest, RandomEditsAgreeWithAString) {
  for (unsigned seed = 0; seed < 20; ++seed) {
    RandomEdits edits(seed);
    for (int step = 0; step < 1500 && !HasFatalFailure(); ++step) edits.step();
    ASSERT_FALSE(HasFatalFailure()) << "seed " << seed;
  }
}

// A stream that is split into units as it arrives, as in an aggregator.
TEST(ZPKMutableDataModelTest, UnitsTakenFromAGrowingBufferMatchTheStream) {
  std::mt19937 random(3);
  const std::string stream = randomBytes(random, 60000);
  const ZPKDataPtr terminator = ZPKData::dataWithString("\na");
  ZPKMutableData buffer;
  std::string joined;
  for (size_t at = 0; at < stream.size();) {
    const size_t count = std::min(stream.size() - at, random() % 20 == 0 ? 5000 : random() % 9);
    buffer.append(stream.data() + at, count);
    at += count;
    for (ZPKRange found = buffer.resumeFind(*terminator); found.location != ZPKNotFound;
         found = buffer.resumeFind(*terminator)) {
      const ZPKMutableDataPtr unit = buffer.takeFirst(ZPIRangeEnd(found));
      ASSERT_EQ(unit->view().find("\na"), unit->length() - 2);
      joined += unit->view();
    }
    ASSERT_EQ(buffer.view().find("\na"), std::string_view::npos);
  }
  EXPECT_EQ(joined + std::string(buffer.view()), stream);
}

}  // namespace
