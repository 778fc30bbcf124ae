#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Support/EventWait.h"
#include "Support/TemporaryFolder.h"

namespace support {

/// A device with a text console, on a pseudo-terminal, a TCP port or a unix socket.
///
/// It reads commands, answers each with its response and the prompt, and can be told to misbehave.
/// It runs on a thread of its own, whose system calls are exempt from SystemCalls, serves one
/// connection at a time and, when that ends, the next. Its destructor never waits for the peer.
///
///     SimulatedDevice device(SimulatedDevice::Kind::kTCP, {.responses = {{"version", "1.0\n"}}});
///     stack->createStackWithURL(device.url());
class SimulatedDevice {
 public:
  enum class Kind { kTerminal, kTCP, kUnix };

  struct Behaviour {
    /// What follows each response.
    std::string prompt = "=> ";
    /// What ends a command.
    std::string terminator = "\n";
    /// Whether a command is echoed, with its terminator, before its response.
    bool echoes = false;
    /// Responses by command; `respond` answers the others.
    std::map<std::string, std::string> responses = {};
    /// The response to any other command; an empty function gives an empty response.
    std::function<std::string(const std::string& command)> respond = {};
    /// How long an answer is delayed.
    std::chrono::milliseconds delay{0};
    /// The pause between the parts of an answer that is sent in several.
    std::chrono::milliseconds pause{2};
    /// Sends an answer byte by byte.
    bool trickles = false;
    /// Sends an answer in two parts; the first ends after this many bytes of the prompt.
    std::optional<size_t> splitsPromptAfter = {};
    /// Hangs up after this many bytes of an answer.
    std::optional<size_t> hangsUpAfter = {};
    /// Reads commands and never answers.
    bool isSilent = false;
    /// Sends without end while a peer is connected.
    bool floods = false;
  };

  explicit SimulatedDevice(Kind kind) : SimulatedDevice(kind, Behaviour()) {}
  SimulatedDevice(Kind kind, Behaviour behaviour);
  SimulatedDevice(const SimulatedDevice&) = delete;
  SimulatedDevice& operator=(const SimulatedDevice&) = delete;
  ~SimulatedDevice();

  /// "uart:///dev/pts/7", "tcp://127.0.0.1:40123" or "unix:///tmp/...".
  const std::string& url() const { return _url; }
  /// The terminal or the socket file; empty for TCP.
  const std::string& path() const { return _path; }
  /// The TCP port, or 0.
  int port() const { return _port; }

  /// Changes how later commands are answered.
  void setBehaviour(Behaviour behaviour);

  /// All received bytes, from all connections.
  std::string received() const;
  /// The received commands, without their terminators.
  std::vector<std::string> commands() const;
  /// How many connections were accepted; always 0 on a terminal.
  size_t connections() const;
  /// Whether everything has been sent.
  bool hasSentAll() const;
  bool waitForReceived(std::string_view bytes) const;
  bool waitForCommands(size_t count) const;
  bool waitForConnections(size_t count) const;
  bool waitUntilAllIsSent() const;

  /// Sends unsolicited bytes. Without a connection they wait for one.
  void send(std::string_view bytes);
  /// Ends the connection once everything is sent, and returns when that is done. A terminal is then
  /// gone for good; elsewhere the next peer can connect.
  void hangUp();
  /// Immediately ends a TCP connection with a reset.
  void resetConnection();
  /// Refuses every later connection.
  void stopListening();
  /// Lets an ordinary user open the terminal again: an exclusive hold (TIOCEXCL) outlives the close
  /// of a pseudo-terminal whose other end stays open.
  void liftExclusiveHold();

 private:
  using Clock = std::chrono::steady_clock;
  enum class Ending { kNone, kHangUp, kReset };

  // Something to send, after a pause, and what follows it.
  struct Step {
    std::string bytes;
    std::chrono::milliseconds pause{0};
    Ending ending = Ending::kNone;
  };

  void makeTerminal();
  void makeListener();
  void start();

  void run();
  bool runOnce();
  int millisecondsUntilNextStep() const;
  bool wantsToSend() const;
  void acceptPeer();
  void receive();
  void takeCommands();
  void answer(const std::string& command);
  void sendNext();
  void finishStep();
  void endLine(Ending ending);
  void endConnection(Ending ending);
  static Step endingStep(Ending ending);
  void addStep(Step step);
  void wake() const;
  bool waitOn(const std::function<bool()>& condition) const;

  const Kind _kind;
  std::string _url;
  std::string _path;
  int _port = 0;
  TemporaryFolder _folder;
  int _wakeRead = -1;
  int _wakeWrite = -1;

  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  // Everything below is guarded by the mutex.
  Behaviour _behaviour;
  int _listener = -1;
  int _line = -1;   // the connection, or the terminal's far end
  int _slave = -1;  // keeps the terminal's near end alive while nobody has it open
  std::deque<Step> _steps;
  Clock::time_point _stepStart;
  std::string _received;
  std::string _pending;  // received, not yet a whole command
  std::vector<std::string> _commands;
  size_t _connections = 0;
  size_t _endings = 0;  // of connections, by either side
  bool _stops = false;

  std::thread _thread;
};

}  // namespace support
