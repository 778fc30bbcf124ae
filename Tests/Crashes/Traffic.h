#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "Crashes/Pieces.h"
#include "Crashes/Progress.h"

namespace support {

/// The prompt in a console's log, numbered too, since it is a chunk of its own there.
inline constexpr const char* kPrompt = "#999999 ";
inline constexpr size_t kPromptNumber = 999999;
/// What a console is answered, without the end of the line.
std::string consoleAnswer(size_t number);

/// Where a victim logs, and what.
struct Assignment {
  std::string log;
  std::string rawLog;
  Pieces pieces{0};
  std::chrono::microseconds pause{0};
  /// How many pieces a source has.
  size_t count = Progress::kMostPieces - 1;
};

/// A way of logging: what a victim does, and what is then in its logs.
struct Traffic {
  std::string name;
  /// Logs until the parent says that it is to end.
  std::function<void(const Assignment&, Progress&)> run;
  /// The bytes of a chunk of `log`, and of one of `rawLog`, by identifier and number.
  std::function<std::string(const Pieces&, std::string_view identifier, size_t number)> bytesOf;
  /// How many pieces a chunk of `log` has; its number is that of the first.
  size_t piecesOfChunk = 1;
  /// Whether a piece that was logged is in the file for certain.
  bool isSynchronous = false;
  /// Whether the chunks of `rawLog` are known; otherwise only their texts are, one after another.
  bool knowsRawChunks = true;
};

/// A recorder, whose log is cut at a delimiter and whose raw log is not.
Traffic recorderTraffic();
/// The same, and closes the recorder and opens it again at each SIGHUP.
void recordAndReopen(const Assignment& assignment, Progress& progress);
/// Commands and answers of a stack.
Traffic stackTraffic();
/// Reads and writes on a thread each, through one logging channel.
Traffic twoThreadsTraffic();
/// A logging channel whose calls return when their lines are in the file.
Traffic synchronousTraffic();
/// A console, which asks a simulated device.
Traffic consoleTraffic();

std::ostream& operator<<(std::ostream& out, const Traffic& traffic);

std::vector<Traffic> everyTraffic();

}  // namespace support
