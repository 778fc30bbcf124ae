#include "RawLogEntry.h"

#include <algorithm>
#include <charconv>

namespace zephal {

namespace {

// The digits stand where the zeros do.
constexpr std::string_view kTimeForm = "0000-00-00 00:00:00.000 <";

bool isDigit(char character) { return character >= '0' && character <= '9'; }

bool fits(char character, char form) {
  return form == '0' ? isDigit(character) : character == form;
}

bool beginsWithTime(std::string_view line) {
  return line.size() >= kTimeForm.size() &&
         std::equal(kTimeForm.begin(), kTimeForm.end(), line.begin(),
                    [](char form, char character) { return fits(character, form); });
}

int number(std::string_view line, size_t start, size_t length) {
  int value = 0;
  std::from_chars(line.data() + start, line.data() + start + length, value);
  return value;
}

std::chrono::milliseconds timeOf(std::string_view line) {
  const std::chrono::year_month_day date{
      std::chrono::year(number(line, 0, 4)),
      std::chrono::month(static_cast<unsigned>(number(line, 5, 2))),
      std::chrono::day(static_cast<unsigned>(number(line, 8, 2)))};
  return std::chrono::sys_days(date).time_since_epoch() + std::chrono::hours(number(line, 11, 2)) +
         std::chrono::minutes(number(line, 14, 2)) + std::chrono::seconds(number(line, 17, 2)) +
         std::chrono::milliseconds(number(line, 20, 3));
}

// Removes `mark` and everything before it from `rest`; null if it is not there.
std::optional<std::string_view> takeUpTo(std::string_view mark, std::string_view* rest) {
  const size_t end = rest->find(mark);
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view taken = rest->substr(0, end);
  rest->remove_prefix(end + mark.size());
  return taken;
}

}  // namespace

std::optional<RawLogEntry> RawLogEntry::of(std::string_view line) {
  constexpr std::string_view kRead = "--read";
  constexpr std::string_view kWrite = "-write";
  if (!beginsWithTime(line)) return std::nullopt;
  std::string_view rest = line.substr(kTimeForm.size());
  const auto label = takeUpTo(">[", &rest);
  const auto process = takeUpTo("]: ", &rest);
  if (!label.has_value() || !process.has_value()) return std::nullopt;
  if (process->empty() || !std::all_of(process->begin(), process->end(), isDigit)) {
    return std::nullopt;
  }
  const bool isWrite = label->ends_with(kWrite);
  if (!isWrite && !label->ends_with(kRead)) return std::nullopt;
  return RawLogEntry{.time = timeOf(line),
                     .identifier = label->substr(0, label->size() - kRead.size()),
                     .isWrite = isWrite,
                     .process = *process,
                     .text = rest};
}

}  // namespace zephal
