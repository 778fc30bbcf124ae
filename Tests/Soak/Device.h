#pragma once

#include <chrono>
#include <deque>
#include <random>
#include <string>

#include "DeviceLine.h"
#include "DevicePlace.h"
#include "Soak/SharedState.h"
#include "Soak/StreamChecker.h"

namespace soak {

using Clock = std::chrono::steady_clock;

/// What a device does besides answering.
struct DeviceHabits {
  /// Sends back every command before it answers.
  bool echoes = false;
  /// Puts a "~" in front of some lines, which the station's filter removes.
  bool isNoisy = false;
  /// Talks unasked as long as somebody listens.
  bool talks = false;
};

/// A device that numbers everything it sends, checks the numbers of what it receives, and
/// misbehaves as each command asks:
///
///     N lines      answers with so many lines and the prompt
///     T lines      the same in pieces, with pauses
///     P lines      the same, with a pause within the prompt
///     L ms         answers after so many milliseconds
///     S            stays silent
///     F lines      floods: so many lines in one go
///     H lines      sends half of a line, pauses, and the rest
///     C bytes      sends so many bytes and hangs up
///     R bytes      sends so many bytes and resets the connection
///     A ms         goes away for so many milliseconds
class Device {
 public:
  Device(int number, zephal::DevicePlace place, DeviceHabits habits, uint64_t seed,
         DeviceState* state);

  const std::string& url() const { return _line.url(); }
  /// The descriptor to poll, or -1, and for what.
  int descriptor() const;
  bool wantsToSend() const { return !_out.empty(); }

  /// Does what can be done without waiting.
  void advance(Clock::time_point now, bool canRead);
  /// When something is due next.
  Clock::time_point due() const;

 private:
  enum class Action { kSend, kHangUp, kReset, kGoAway };
  struct Step {
    std::chrono::milliseconds pause;
    Action action;
    std::string bytes;
    std::chrono::milliseconds away;
  };

  void beginConnection();
  void endConnection();
  void receive();
  void showEvidence();
  void obey(const Token& command);
  void addAnswer(const Token& command);
  void addInTwo(const std::string& text, size_t middle, std::chrono::milliseconds pause);
  void addCut(const Token& command);
  void answerInPieces(const std::string& text);
  void talk();
  void send();
  void perform(Clock::time_point now);
  void cut(const Step& step, Clock::time_point now);
  void renew();
  void add(std::chrono::milliseconds pause, std::string bytes);
  std::string lines(uint32_t count);
  std::string answer(uint32_t lineCount);
  uint32_t random(uint32_t from, uint32_t to);
  void publish();

  const int _number;
  const DeviceHabits _habits;
  DeviceState* const _state;
  std::mt19937_64 _random;
  zephal::DeviceLine _line;
  StreamChecker _commands;
  std::deque<Step> _steps;
  Clock::time_point _stepBegan{};
  Clock::time_point _isBackAt{};
  bool _isAway = false;
  bool _isConnected = false;
  uint32_t _connection = 0;
  uint32_t _nextToken = 0;
  std::string _out;
};

}  // namespace soak
