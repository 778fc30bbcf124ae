#include "ZephalConsole/Internal/ControlCharacter.h"

#include <array>
#include <stdexcept>
#include <string>
#include <utility>

namespace zephal::internal {
namespace {

constexpr std::array<std::pair<std::string_view, char>, 11> kNames{{
    {"interrupt", '\x03'},
    {"eof", '\x04'},
    {"backspace", '\b'},
    {"tab", '\t'},
    {"enter", '\r'},
    {"xon", '\x11'},
    {"xoff", '\x13'},
    {"suspend", '\x1a'},
    {"escape", '\x1b'},
    {"quit", '\x1c'},
    {"delete", '\x7f'},
}};

bool isLetter(char byte) { return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z'); }

}  // namespace

char controlCharacter(std::string_view name) {
  for (const auto& [known, character] : kNames) {
    if (known == name) return character;
  }
  constexpr int kControlBits = 0x1f;
  if (name.size() == 1 && isLetter(name.front())) {
    return static_cast<char>(name.front() & kControlBits);
  }
  throw std::invalid_argument("no control character has the name \"" + std::string(name) + "\"");
}

}  // namespace zephal::internal
