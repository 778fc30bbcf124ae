#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "DeviceAnswer.h"
#include "DeviceBehaviour.h"
#include "DevicePlace.h"
#include "DeviceRecording.h"

namespace zephal {

class DeviceRunner;

/// A device with a text console, or one that plays a recording, on a pseudo-terminal, a TCP port or
/// a unix socket, for tests.
///
/// It reads commands, answers each with a text and the prompt, and can be told to misbehave. It
/// runs on a thread of its own, which blocks all signals, serves one connection at a time and, when
/// that ends, the next. Only this machine can reach it, but every user of it can.
///
///     zephal::SimulatedDevice device(zephal::DeviceKind::kTCP,
///                                    {.responses = {{"version", "1.0\n"}}});
///     stack->createStackWithURL(device.url());
///
/// All operations may be called on any thread. A system call that fails throws a std::system_error,
/// which names the call, the address and the reason; a wrong argument throws a
/// std::invalid_argument. The destructor never waits for the peer. A device whose thread has no
/// memory left goes off.
class SimulatedDevice {
 public:
  /// What the device does about a command.
  using Answer = DeviceAnswer;
  /// How the device behaves.
  using Behaviour = DeviceBehaviour;
  /// The kinds of line.
  using Kind = DeviceKind;
  /// A login.
  using Login = DeviceLogin;
  /// Where the device can be reached.
  using Place = DevicePlace;

  /// How long a call waits for something that must happen, unless told otherwise. Only a test that
  /// fails waits that long, so it is long enough for a loaded machine.
  static constexpr std::chrono::milliseconds kPatience{30000};

  /// A plain console, which starts immediately.
  explicit SimulatedDevice(Place place);
  /// A device that starts immediately and behaves as told.
  SimulatedDevice(Place place, Behaviour behaviour);
  /// A device that starts immediately and plays a recording. Of a behaviour that is set later, only
  /// `floods` has an effect.
  SimulatedDevice(Place place, const DeviceRecording& recording);
  SimulatedDevice(const SimulatedDevice&) = delete;
  SimulatedDevice& operator=(const SimulatedDevice&) = delete;
  ~SimulatedDevice();

  /// "uart:///tmp/...", "tcp://127.0.0.1:40123" or "unix:///tmp/...": the same for life, reboots
  /// included.
  const std::string& url() const;
  /// The link to the terminal or the socket file; empty for TCP.
  const std::string& path() const;
  /// The TCP port, or 0.
  int port() const;

  /// Changes how the device answers later commands.
  void setBehaviour(Behaviour behaviour);

  /// All received bytes, from all connections.
  std::string received() const;
  /// The received commands, without their terminators. A user and a password are commands too.
  std::vector<std::string> commands() const;
  /// Those of the commands that neither `responses` nor `respond`, or not the recording, knows. An
  /// empty one is known to a console.
  std::vector<std::string> unknownCommands() const;
  /// How many connections were accepted; always 0 on a terminal.
  size_t connections() const;
  /// Whether nothing is left to send.
  bool hasSentAll() const;
  /// Forgets what has been received: bytes, commands and unknown commands. A device that runs for
  /// hours otherwise needs memory for all of it.
  void forgetReceived();

  /// Waits until these bytes have been received; false if that does not happen within `limit`. So
  /// do the others below.
  bool waitForReceived(std::string_view bytes, std::chrono::milliseconds limit = kPatience) const;
  /// Waits until this many commands have been received.
  bool waitForCommands(size_t count, std::chrono::milliseconds limit = kPatience) const;
  /// Waits until this many connections have been accepted.
  bool waitForConnections(size_t count, std::chrono::milliseconds limit = kPatience) const;
  /// Waits until nothing is left to send.
  bool waitUntilAllIsSent(std::chrono::milliseconds limit = kPatience) const;
  /// Waits until the device can be reached. Throws if the device tried to come back and could not,
  /// or went off for lack of memory.
  bool waitUntilOn(std::chrono::milliseconds limit = kPatience) const;

  /// Sends bytes unasked, unchanged. Without a connection they wait for one.
  void send(std::string_view bytes);
  /// Ends the connection once everything is sent, and returns when that is done; throws if it takes
  /// longer than kPatience. A terminal is then
  /// gone until powerOn or reboot; bytes that the peer has not read are lost with it, so the device
  /// gives the peer two seconds to read them. Elsewhere the next peer can connect.
  void hangUp();
  /// Immediately ends a TCP connection with a reset.
  void resetConnection();
  /// Refuses every later connection until powerOn or reboot.
  void stopListening();

  /// The device goes away, as a USB adapter that is unplugged: the connection ends, and its URL
  /// cannot be opened. Unsent bytes are lost. Returns when that is done.
  void powerOff();
  /// The device comes back at the same URL, and boots: see DeviceBehaviour::bootText. Returns when
  /// it can be reached. Does nothing if it is on.
  void powerOn();
  /// powerOff; then powerOn `away` later, without waiting for that: see waitUntilOn.
  void reboot(std::chrono::milliseconds away = std::chrono::milliseconds(0));
  /// Whether the device can be reached.
  bool isOn() const;

  /// Lets an ordinary user open the terminal again: an exclusive hold (TIOCEXCL) outlives the close
  /// of a pseudo-terminal whose other end stays open. A terminal that is back from a reboot has
  /// none.
  void liftExclusiveHold();

  /// `start` is called first on the thread of every device that is made from now on, for instance
  /// to name it, or to exempt it from a tool that watches threads. An empty function ends that.
  static void setThreadStart(std::function<void()> start);

 private:
  const std::unique_ptr<DeviceRunner> _runner;
};

}  // namespace zephal
