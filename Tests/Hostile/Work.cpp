#include "Hostile/Work.h"

#include <cstdio>
#include <cstdlib>

std::string flood(const std::string& bytes, size_t size) {
  std::string text;
  for (text.reserve(size + bytes.size()); text.size() < size;) text += bytes;
  text.resize(size);
  return text;
}

void require(bool isSo, const char* text) {
  if (isSo) return;
  std::fprintf(stderr, "a flood was not handled: %s\n", text);
  std::exit(1);
}
