#include "Faults/ConsoleScenarios.h"

#include <utility>

#include "Faults/ConsoleStation.h"

namespace support {

namespace {

using Line = ConsoleStation::Line;
using Kind = SimulatedDevice::Kind;

void converse(Trial& trial, const Line& line) {
  ConsoleStation station(trial, line);
  static_cast<void>(station.open() && station.greeting() && station.ask() && station.run() &&
                    station.expect() && station.send() && station.record() && station.close());
  trial.afterwards([&] { station.mustStillWork(); });
}

void logIn(Trial& trial, const Line& line) {
  ConsoleStation station(trial, line, true);
  static_cast<void>(station.open() && station.logIn() && station.ask() && station.close());
  trial.afterwards([&] { station.mustStillWork(); });
}

void timeOut(Trial& trial, const Line& line) {
  ConsoleStation station(trial, line);
  static_cast<void>(station.open() && station.greeting() && station.askInVain() && station.close());
  trial.afterwards([&] { station.mustStillWork(); });
}

// A reopen tries again until it succeeds.
void lookUp(Trial& trial, const Line& line) {
  trial.hidesFailures = true;
  ConsoleStation station(trial, line);
  static_cast<void>(station.open() && station.greeting() && station.close() && station.reopen() &&
                    station.close());
  trial.afterwards([&] { station.mustStillWork(); });
}

// The log has not got the end of its last line, the prompt, yet.
void destroy(Trial& trial, const Line& line) {
  trial.hidesFailures = true;
  ConsoleStation station(trial, line);
  static_cast<void>(station.open() && station.greeting() && station.destroy());
  trial.afterwards([&] { station.mustStillWork(); });
}

void hangUp(Trial& trial, const Line& line) {
  trial.hidesFailures = true;
  ConsoleStation station(trial, line);
  static_cast<void>(station.open() && station.greeting() && station.loseDevice() &&
                    station.reopen() && station.ask() && station.close());
  trial.afterwards([&] { station.mustStillWork(); });
}

void reboot(Trial& trial, const Line& line) {
  trial.hidesFailures = true;
  ConsoleStation station(trial, line);
  static_cast<void>(station.open() && station.greeting() && station.reboot() && station.ask() &&
                    station.close());
  trial.afterwards([&] { station.mustStillWork(); });
}

void cancel(Trial& trial, const Line& line) {
  trial.hidesFailures = true;
  ConsoleStation station(trial, line);
  static_cast<void>(station.open() && station.greeting() && station.cancel() && station.ask() &&
                    station.close());
  trial.afterwards([&] { station.mustStillWork(); });
}

}  // namespace

std::vector<Scenario> consoleScenarios() {
  std::vector<Scenario> scenarios;
  const auto add = [&](const std::string& name, void (*run)(Trial&, const Line&),
                       const Line& line) {
    scenarios.push_back({name, [run, line](Trial& trial) { run(trial, line); }});
  };
  const Line unixSocket{.kind = Kind::kUnix};
  const Line tcp{.kind = Kind::kTCP};
  const Line terminal{.kind = Kind::kTerminal};
  add("ConsoleConversesOverTCP", converse, tcp);
  add("ConsoleConversesOverTerminalWithLogs", converse, {.kind = Kind::kTerminal, .hasLogs = true});
  add("ConsoleConversesOverTelnet", converse, {.kind = Kind::kTCP, .isTelnet = true});
  add("ConsoleLogsInOverUnix", logIn, unixSocket);
  add("ConsoleTimesOutOverUnix", timeOut, unixSocket);
  add("ConsoleIsDestroyedWithLogs", destroy, {.kind = Kind::kUnix, .hasLogs = true});
  add("ConsoleLooksUpItsHost", lookUp, {.kind = Kind::kTCP, .hasName = true});
  add("ConsoleHangsUpOverTCP", hangUp, tcp);
  add("ConsoleHangsUpOverTerminal", hangUp, terminal);
  add("ConsoleRebootsOverTerminal", reboot, terminal);
  add("ConsoleIsCancelledOverTCP", cancel, tcp);
  return scenarios;
}

std::vector<Scenario> allFaultScenarios() {
  std::vector<Scenario> scenarios = faultScenarios();
  for (Scenario& scenario : consoleScenarios()) scenarios.push_back(std::move(scenario));
  return scenarios;
}

}  // namespace support
