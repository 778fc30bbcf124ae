#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>

#include "Support/ProcessorTime.h"
#include "ZephalConsole/Internal/EchoSearch.h"

namespace {

using zephal::internal::Echo;
using zephal::internal::echoAt;
using zephal::internal::EchoSearch;

// The text's beginnings are undecided, and the whole is an echo of this length.
void expectEcho(std::string_view echo, std::string_view command) {
  for (size_t length = 0; length < echo.size(); ++length) {
    EXPECT_EQ(echoAt(echo.substr(0, length), command).state, Echo::State::kUndecided) << length;
  }
  const Echo found = echoAt(std::string(echo) + "answer", command);
  EXPECT_EQ(found.state, Echo::State::kFound);
  EXPECT_EQ(found.length, echo.size());
}

TEST(EchoSearch, FindsAnEchoThatEndsWithALineFeed) { expectEcho("version\n", "version"); }

TEST(EchoSearch, FindsAnEchoThatEndsWithCarriageReturnAndLineFeed) {
  expectEcho("version\r\n", "version");
  expectEcho("version\r\r\n", "version");
}

TEST(EchoSearch, FindsAnEchoThatWasWrappedAtTheMargin) {
  expectEcho("echo one \rtwo\r\n", "echo onetwo");
  expectEcho("echo one\r\ntwo\r\n", "echo onetwo");
  expectEcho("echo one\rtwo\r\n", "echo onetwo");
}

TEST(EchoSearch, FindsAnEchoWhoseMarginFollowsABlank) {
  expectEcho("echo one  \rtwo\r\n", "echo one two");
}

TEST(EchoSearch, FindsAnEchoThatWasWrappedAtABlankOfTheCommand) {
  expectEcho("echo one | \r\r\ncat\r\n", "echo one | cat");
}

TEST(EchoSearch, FindsAnEchoWhoseEndWasDrawnOnceMore) {
  expectEcho("echo one | cat \rt\r\n", "echo one | cat");
}

TEST(EchoSearch, FindsAnEchoThatAScrollingEditorHasCut) {
  expectEcho("\r<xxx | cat\r\n", "echo xxxxxxxx | cat");
  expectEcho("echo xxx\r<xxx | cat\r\n", "echo xxxxxxxx | cat");
}

TEST(EchoSearch, FindsNoneInEndlessRedrawing) {
  EXPECT_EQ(echoAt("echo" + std::string(10000, '\r'), "echo one").state, Echo::State::kNone);
}

TEST(EchoSearch, FindsTheLineBreakOfAnEmptyCommand) { expectEcho("\r\n", ""); }

TEST(EchoSearch, FindsNoneIfTheAnswerBeginsOtherwise) {
  EXPECT_EQ(echoAt("1.0\n", "version").state, Echo::State::kNone);
  EXPECT_EQ(echoAt("\nversion\n", "version").state, Echo::State::kNone);
}

TEST(EchoSearch, FindsNoneIfTheAnswerOnlyBeginsLikeTheCommand) {
  EXPECT_EQ(echoAt("version 1.0\n", "version").state, Echo::State::kNone);
}

// --- Beside a plain model.

// The numbers of characters of the command that may have been echoed, from the beginning each time.
class Model {
 public:
  Model(std::string_view text, std::string_view command) : _text(text), _command(command) {}

  Echo read() {
    const size_t longest = std::min(_text.size(), 4 * _command.size() + 1024);
    for (size_t at = 0; at < longest; ++at) {
      if (_text[at] == '\n' && _positions.contains(_command.size()))
        return {Echo::State::kFound, at + 1};
      step(at);
      if (_positions.empty()) return {};
    }
    return {longest < _text.size() ? Echo::State::kNone : Echo::State::kUndecided, 0};
  }

 private:
  bool isBefore(size_t at, std::string_view bytes) const {
    return at + 1 == _text.size() || bytes.find(_text[at + 1]) != std::string_view::npos;
  }

  bool isMargin(size_t at, size_t position) const {
    if (_text[at] == '\r') return position > 0 || isBefore(at, "<\n");
    if (_text[at] == ' ') return position > 0 && isBefore(at, "\r");
    return position > 0 && (_text[at] == '\n' || _text[at] == '\b');
  }

  void step(size_t at) {
    std::set<size_t> next;
    for (const size_t position : _positions) {
      if (position < _command.size() && _command[position] == _text[at]) next.insert(position + 1);
      if (isMargin(at, position)) next.insert(position);
    }
    const bool isRedrawn = at > 0 && (_text[at - 1] == '\r' || _text[at - 1] == '\b');
    if (isRedrawn) addRedrawn(_text[at], &next);
    _positions = next;
  }

  void addRedrawn(char byte, std::set<size_t>* next) const {
    for (size_t position = 0; position <= _command.size(); ++position) {
      if (byte == '<') next->insert(position);
      const bool wasShown = position < *_positions.rbegin();
      if (byte != '<' && wasShown && _command[position] == byte) next->insert(position + 1);
    }
  }

  const std::string_view _text;
  const std::string_view _command;
  std::set<size_t> _positions{0};
};

class Random {
 public:
  size_t upTo(size_t most) { return std::uniform_int_distribution<size_t>(0, most)(_engine); }
  std::string text(size_t length, std::string_view alphabet) {
    std::string text;
    while (text.size() < length) text += alphabet[upTo(alphabet.size() - 1)];
    return text;
  }

 private:
  std::mt19937 _engine{2026};
};

// An echo of the command with redraws and margins, more or less.
std::string likeAnEcho(const std::string& command, Random& random) {
  std::string text;
  for (size_t at = 0; at < command.size(); ++at) {
    text += command[at];
    if (random.upTo(9) > 0) continue;
    const size_t back = random.upTo(std::min<size_t>(at, 8));
    text += random.upTo(1) == 0 ? "\r" : " \r";
    if (random.upTo(2) == 0) text += '<';
    text += command.substr(at + 1 - back, back);
  }
  return text + (random.upTo(1) == 0 ? "\r\n" : "\nx");
}

void expectLikeTheModel(const std::string& text, const std::string& command, Random& random) {
  EchoSearch search(command);
  for (size_t size = 0; size < text.size();) {
    size = std::min(text.size(), size + 1 + random.upTo(4));
    const std::string_view arrived = std::string_view(text).substr(0, size);
    const Echo expected = Model(arrived, command).read();
    const Echo echo = search.look(arrived);
    ASSERT_EQ(echo.state, expected.state) << testing::PrintToString(std::string(arrived));
    ASSERT_EQ(echo.length, expected.length) << testing::PrintToString(std::string(arrived));
    if (echo.state != Echo::State::kUndecided) return;
  }
}

TEST(EchoSearch, AgreesWithAPlainModelOnRandomTexts) {
  Random random;
  for (int i = 0; i < 2000; ++i) {
    const std::string command = random.text(random.upTo(6), "ab ");
    expectLikeTheModel(random.text(12, "aab  \r\n\b<"), command, random);
  }
}

TEST(EchoSearch, AgreesWithAPlainModelOnLongRedrawnCommands) {
  Random random;
  for (int i = 0; i < 20; ++i) {
    const std::string command = random.text(60 + random.upTo(80), "aab |");
    expectLikeTheModel(likeAnEcho(command, random), command, random);
  }
}

TEST(EchoSearch, TakesNoLongForADeviceThatRedraws) {
  constexpr double kSecondsOfLinearWork = 30;  // the square of it takes minutes
  const std::string command(size_t{16} * 1024, 'v');
  std::string text;
  while (text.size() < 3 * command.size()) text += "\r<vvvvvvvvvvvvvv";
  EchoSearch search(command);
  const double start = support::processorTime();
  for (size_t size = 0; size < text.size(); size += 64) {
    ASSERT_EQ(search.look(std::string_view(text).substr(0, size)).state, Echo::State::kUndecided);
  }
  EXPECT_LT(support::processorTime() - start, kSecondsOfLinearWork);
}

}  // namespace
