#include "Crashes/Pieces.h"

#include <array>
#include <random>
#include <string_view>

namespace support {
namespace {

constexpr std::array<std::string_view, 8> kBreaks{"\n", "\r\n", "\r", "\n\n",
                                                  " ",  "\r\n", "~",  "-"};

size_t lengthOf(std::minstd_rand& random) {
  const auto kind = random() % 400;
  if (kind < 360) return random() % 120;
  return random() % (kind < 399 ? 3000 : 100000);
}

}  // namespace

std::string Pieces::operator[](size_t number) const {
  std::minstd_rand random(_seed * 65537U + static_cast<uint32_t>(number) + 1);
  random.discard(3);
  const size_t length = lengthOf(random);
  std::string piece = "#" + std::to_string(number) + " ";
  while (piece.size() < length) {
    piece.append(random() % (1 + length / 4), static_cast<char>('a' + random() % 26));
    piece += kBreaks[random() % kBreaks.size()];
    if (random() % 50 == 0) piece += "\xff\xfe";
  }
  return piece + ".";
}

std::string Pieces::range(size_t first, size_t count) const {
  std::string all;
  for (size_t number = first; number < first + count; ++number) all += (*this)[number];
  return all;
}

}  // namespace support
