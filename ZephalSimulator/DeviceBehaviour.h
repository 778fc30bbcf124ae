#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "DeviceAnswer.h"
#include "DeviceLogin.h"

namespace zephal {

/// How a simulated device behaves: a plain console, unless told otherwise. Meant to be written with
/// the fields that matter, in this order:
///
///     {.prompt = "# ", .echoes = true, .responses = {{"version", "1.0\n"}}}
struct DeviceBehaviour {
  /// Sent when the device starts and after each reboot, followed by the prompt or the login.
  /// Without it, and without a login, the device says nothing before its first command.
  std::string bootText = {};
  /// The login that the device asks for; null: it is a console from the start.
  std::optional<DeviceLogin> login = {};
  /// Sent after each answer.
  std::string prompt = "=> ";
  /// What ends a command; not empty.
  std::string terminator = "\n";
  /// Sends each command back, with its terminator, before its answer. A password is not echoed.
  bool echoes = false;
  /// Treats line ends as a Linux console does (icrnl and onlcr of stty(1)): a carriage return
  /// received counts as a line feed, and each line feed of an echo, answer, prompt or boot text is
  /// sent as CR LF. The terminator must then be a line feed.
  bool translatesLineEnds = false;
  /// The answers by command; `respond` answers the others.
  std::map<std::string, DeviceAnswer> responses = {};
  /// The answer to any other command; an empty function answers with the prompt. It is called on
  /// the device's thread and must not throw. It may call the device, except what waits.
  std::function<DeviceAnswer(const std::string& command)> respond = {};
  /// How long an answer is delayed.
  std::chrono::milliseconds delay{0};
  /// The pause between the parts of an answer that is sent in several.
  std::chrono::milliseconds pause{2};
  /// Sends everything byte by byte.
  bool trickles = false;
  /// Splits an answer, with its echo and prompt, after this many bytes of it, in ascending order.
  std::vector<size_t> splitsAfter = {};
  /// Splits an answer after this many bytes of the prompt.
  std::optional<size_t> splitsPromptAfter = {};
  /// Hangs up after this many bytes of an answer.
  std::optional<size_t> hangsUpAfter = {};
  /// Reads commands and never answers.
  bool isSilent = false;
  /// Sends without end while a peer is connected.
  bool floods = false;
};

}  // namespace zephal
