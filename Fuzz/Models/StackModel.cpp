#include "Models/StackModel.h"

#include "Models/TextModel.h"

StackModel::Result StackModel::read(bool waits, const std::optional<std::string>& delimiter) {
  if (!isOpen) return {std::nullopt, 304};
  const std::string kept = cutter.terminator;
  if (delimiter.has_value()) cutter.terminator = *delimiter;
  const Result result = readChain(waits);
  cutter.terminator = kept;
  return judged(result);
}

StackModel::Result StackModel::ask(bool waits) {
  if (!isOpen) return {std::nullopt, 304};
  if (writesFail) return {std::nullopt, kCodeFromBelow};
  return judged(readChain(waits));
}

StackModel::Result StackModel::askForText(bool waits) {
  Result result = ask(waits);
  if (!result.bytes.has_value() || decodedUTF8(*result.bytes).has_value()) return result;
  return {std::nullopt, 306};
}

StackModel::Result StackModel::askWithoutEcho(const std::string& command, bool waits) {
  Result result = askForText(waits);
  if (!result.bytes.has_value()) return result;
  const std::string echo = command + lineTerminator;
  const size_t at = result.bytes->find(echo);
  if (at != std::string::npos) result.bytes->erase(at, echo.size());
  return result;
}

StackModel::Result StackModel::askAndPick(const std::string& command, bool waits) {
  Result result = askWithoutEcho(command, waits);
  if (!result.bytes.has_value()) return result;
  const size_t at = result.bytes->find('a');
  if (at == std::string::npos) return {std::nullopt, 308};
  const bool hasGroup = result.bytes->compare(at + 1, 1, "b") == 0;
  return {hasGroup ? "b" : "a", 0};
}

bool StackModel::wouldEnd(const std::optional<std::string>& delimiter) const {
  StackModel copy = *this;
  if (delimiter.has_value()) copy.cutter.terminator = *delimiter;
  while (true) {
    const bool isLast = copy.reads.empty();
    if (copy.unitFromBelow().has_value()) return true;
    if (isLast) return false;
  }
}

void StackModel::close(bool isGood) {
  isOpen = false;
  if (!isGood) return;
  cutter.held.clear();
  for (EventModel& filter : filters) filter.reset();
}

// One unit, from what is held or from one read below; null if there is none yet.
std::optional<StackModel::Result> StackModel::unitFromBelow() {
  const std::string unit = cutter.terminator.empty() ? "" : cutter.take("");
  if (!unit.empty()) return Result{unit};
  Read next{""};
  if (!reads.empty()) {
    next = reads.front();
    reads.pop_front();
  }
  if (!next.bytes.has_value()) {
    if (next.closes) isOpen = false;
    return Result{std::nullopt, kCodeFromBelow};
  }
  const std::string taken = cutter.take(*next.bytes);
  if (taken.empty()) return std::nullopt;
  return Result{taken};
}

StackModel::Result StackModel::readChain(bool waits) {
  std::optional<Result> result = unitFromBelow();
  while (waits && !result.has_value()) result = unitFromBelow();
  std::string bytes;
  if (result.has_value()) {
    if (!result->bytes.has_value()) return *result;
    bytes = *result->bytes;
  }
  if (const auto read = swaps.swapIn(bytes)) {
    swap = "Expected ECID: " + swaps.expected + " Read ECID: " + *read;
  }
  bytes = swaps.take(bytes);
  for (EventModel& filter : filters) bytes = filter.take(bytes);
  return {bytes};
}

StackModel::Result StackModel::judged(Result result) const {
  if (swap.has_value()) return {std::nullopt, 309};
  const bool isTimeout = timeoutIsException && result.bytes.has_value() && result.bytes->empty();
  return isTimeout ? Result{std::nullopt, 305} : result;
}
