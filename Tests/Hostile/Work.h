#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

/// A layer that is given a flood. It ends the process if the layer loses bytes.
struct Work {
  /// Where the flood arrives.
  std::string layer;
  /// The name of the flood.
  std::string flood;
  /// What it repeats.
  std::string bytes;
  /// Handles a flood.
  std::function<void(const std::string& text)> run;
  /// How many bytes the shortest of the three floods has; fewer where a byte takes much.
  size_t shortest = 8192;
};

using Works = std::vector<Work>;

Works channelWorks();
Works transformerWorks();
Works functionWorks();
Works consoleWorks();
Works simulatorWorks();

/// The same bytes over and over.
std::string flood(const std::string& bytes, size_t size);

/// Ends the process, with this text, unless it is so.
void require(bool isSo, const char* text);
