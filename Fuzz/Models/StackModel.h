#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "Models/CutterModel.h"
#include "Models/EventModel.h"
#include "Models/SwapModel.h"

/// A whole stack over a device that answers by a list: what its operations return, by the list of
/// the stack's layers and of its steps.
struct StackModel {
  /// The outcome of a read below: bytes, or a failure, which closes the channel or does not.
  struct Read {
    std::optional<std::string> bytes;
    bool closes = false;
  };
  /// The outcome of an operation; code 0 is no error.
  struct Result {
    std::optional<std::string> bytes = std::nullopt;
    int code = 0;
  };

  static constexpr int kCodeFromBelow = 42;

  bool isOpen = true;
  bool timeoutIsException = true;
  std::string lineTerminator = "\n";
  CutterModel cutter{"> "};
  SwapModel swaps = {};
  std::optional<std::string> swap = std::nullopt;
  std::vector<EventModel> filters = {};
  std::deque<Read> reads = {};
  bool writesFail = false;

  Result read(bool waits, const std::optional<std::string>& delimiter);
  Result ask(bool waits);
  Result askForText(bool waits);
  Result askWithoutEcho(const std::string& command, bool waits);
  /// What "a(b)?" picks.
  Result askAndPick(const std::string& command, bool waits);
  /// Whether a read without a time limit would end.
  bool wouldEnd(const std::optional<std::string>& delimiter) const;
  void close(bool isGood);

 private:
  std::optional<Result> unitFromBelow();
  Result readChain(bool waits);
  Result judged(Result result) const;
};
