#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace zephal {

/// How a raw log is turned into a recording.
struct RawLogOptions {
  /// What the device sends for each line break, since a log does not tell CR LF, CR and LF apart.
  std::string lineEnd = "\n";
  /// The device's prompt, if it sends it in a piece of its own. Two pieces of the same millisecond
  /// look in a log as if there was an empty line between them; with the prompt here, it is known
  /// that there was none.
  std::string prompt = {};
  /// Sends each piece as long after the one before it, or after the request, as it came then.
  /// Otherwise everything is sent immediately.
  bool keepsPauses = false;
  /// Which entries count: those of a stack's raw log are <pre---read> and <pre--write>.
  std::string identifier = "pre-";
};

/// A conversation that a SimulatedDevice plays: what the device was sent, and what it answered.
///
/// What was sent between two of its answers is a request. When a request arrives, the device sends
/// what it answered then; what it said before the first request, it says when it starts. Any of CR
/// LF, CR and LF counts as the same line break. The requests are expected in their order. Another
/// one of the recording is answered too: the next one like it, or if there is none, the first one,
/// and the device goes on from there. A line that begins no request is an unknown command: the
/// device says nothing and goes on. When it reboots, it starts over.
class DeviceRecording {
 public:
  /// Something that the device sends, after a pause.
  struct Piece {
    /// What is sent.
    std::string bytes;
    /// How long after the piece before it, or the request.
    std::chrono::milliseconds pause{0};
  };
  /// A request, with "\n" for each line break, and the answer to it. Empty in the first one: what
  /// the device says unasked.
  struct Exchange {
    /// What the device is sent.
    std::string request;
    /// What it answers.
    std::vector<Piece> answer;
  };

  /// A conversation that was made up.
  explicit DeviceRecording(std::vector<Exchange> exchanges);

  /// The conversation in a raw log that ZephalIO wrote: that of ZPKCommStack (setLogFilePath) or
  /// ZPKCommLoggerStack, or of a channel by createLoggingChannel. Throws a std::system_error if the
  /// file cannot be read, and a std::runtime_error if it has no such entries.
  ///
  /// A log does not say everything. Bytes that were not UTF-8 stand there in hexadecimal, such as
  /// "<ff0a>", and are played as that text. Lines with the same time are taken for one piece with
  /// line breaks in it: of two pieces in the same millisecond, the second begins on a new line,
  /// except for the prompt. Where a connection ended is not in the log.
  static DeviceRecording fromRawLog(const std::string& path,
                                    const RawLogOptions& options = RawLogOptions());

  /// The conversation, in its order.
  const std::vector<Exchange>& exchanges() const { return _exchanges; }

 private:
  std::vector<Exchange> _exchanges;
};

}  // namespace zephal
