#include <ZephalConsole/Console.h>

#include <chrono>

#include "Hostile/FloodPeer.h"
#include "Hostile/Work.h"

namespace {

using zephal::Console;
using zephal::ConsoleOptions;
using Kind = FloodPeer::Kind;
using Start = FloodPeer::Start;
using Use = std::function<void(const std::string& text)>;

constexpr const char* kPrompt = "=> ";
// Ends a flood, whatever it has begun.
constexpr const char* kEnd = "\x18\n-the end-\n";
constexpr const char* kEndAndPrompt = "\x18\n-the end-\n=> ";
constexpr const char* kTelnetEnd = "\xff\xff\xff\xf0\x18\n-the end-\n";
constexpr size_t kSmallLimit = 8192;

ConsoleOptions options(size_t limit = size_t{16} << 20) {
  return {.prompt = kPrompt, .timeout = std::chrono::minutes(1), .limit = limit};
}

void expectEnd(const std::string& text, const std::vector<zephal::Pattern>& patterns,
               const ConsoleOptions& how) {
  const FloodPeer peer(Kind::kUnix, Start::kAtOnce, text, kEnd);
  Console console(peer.url(), how);
  require(console.expect(patterns).text() == "-the end-", "the end was not found");
}

void ask(const std::string& command, const std::string& text) {
  const FloodPeer peer(Kind::kUnix, Start::kAfterALine, text, kEndAndPrompt);
  Console console(peer.url(), options());
  require(console.ask(command).ends_with("-the end-\n"), "the answer has no end");
}

void login(const std::string& text) {
  const FloodPeer peer(Kind::kUnix, Start::kAtOnce, text, kEndAndPrompt);
  Console(peer.url(), options()).login("user", "secret");
}

void sendSecret(const std::string& text) {
  const FloodPeer peer(Kind::kUnix, Start::kAfterALine, text, kEnd);
  Console console(peer.url(), options());
  console.sendSecret("hunter2");
  console.expect("-the end-");
}

// Until the end has come, since a recording ends by time.
void record(const std::string& text, size_t limit) {
  const FloodPeer peer(Kind::kUnix, Start::kAtOnce, text, kEnd);
  Console console(peer.url(), options(limit));
  for (bool hasEnded = false; !hasEnded;) {
    const auto lines = console.record(std::chrono::milliseconds(20));
    hasEnded = !lines.empty() && lines.back().text == "-the end-";
  }
}

void expectThroughTelnet(const std::string& text) {
  const FloodPeer peer(Kind::kTelnet, Start::kAtOnce, text, kTelnetEnd);
  Console console(peer.url(), options());
  console.expect("-the end-");
}

void addEverywhere(const std::string& name, const std::string& bytes, Works* works) {
  const auto add = [&](const char* layer, const Use& use) {
    works->push_back({layer, name, bytes, use});
  };
  add("console, expect a text",
      [](const std::string& text) { expectEnd(text, {"-the end-"}, options()); });
  add("console, expect several", [](const std::string& text) {
    expectEnd(text, {zephal::regex("panic: [0-9]+"), "aaaaaaab", "-the end-"}, options());
  });
  add("console, ask", [](const std::string& text) { ask("version", text); });
  add("console, login", login);
  add("console, after a secret", sendSecret);
  add("console, record", [](const std::string& text) { record(text, size_t{16} << 20); });
}

// More than is read at a time, so that what is kept shows.
void addWithSmallLimit(const std::string& name, const std::string& bytes, Works* works) {
  constexpr size_t kManyBytes = size_t{128} * 1024;
  works->push_back(
      {"console, small limit, expect", name, bytes,
       [](const std::string& text) { expectEnd(text, {"-the end-"}, options(kSmallLimit)); },
       kManyBytes});
  works->push_back({"console, small limit, record", name, bytes,
                    [](const std::string& text) { record(text, kSmallLimit); }, kManyBytes});
}

void addTelnet(const std::string& name, const std::string& bytes, Works* works) {
  works->push_back({"console, telnet", name, bytes, expectThroughTelnet});
}

void addRedraws(const std::string& name, const std::string& bytes, Works* works) {
  works->push_back({"console, ask a long command", name, bytes,
                    [](const std::string& text) { ask(std::string(1024, 'v'), text); }});
}

}  // namespace

Works consoleWorks() {
  Works works;
  addEverywhere("no delimiter", "x", &works);
  addEverywhere("line feeds", "\n", &works);
  addEverywhere("carriage returns", "\r", &works);
  addEverywhere("near misses", "=>a-the end", &works);
  addEverywhere("escapes without end", "\x1b[1;", &works);
  addEverywhere("strings without end", "\x1b]0;", &works);
  addEverywhere("invalid UTF-8", "\xff\xc3(\xe2\x82", &works);
  addEverywhere("NULs", std::string(1, '\0'), &works);
  addWithSmallLimit("no delimiter", "x", &works);
  addWithSmallLimit("line feeds", "\n", &works);
  addTelnet("requests", "\xff\xfd\x18", &works);
  addTelnet("subnegotiation without end", "\xff\xfa,x", &works);
  addTelnet("escaped bytes", "\xff\xff", &works);
  addRedraws("redraws", "\r<vvvvvvvvvvvvvv", &works);
  addRedraws("redraws of the start", "v\rvvv", &works);
  return works;
}
