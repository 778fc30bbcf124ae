// One run of a scenario in which one call fails.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Support/SystemCalls.h"
#include "Utility/ZPKError.h"

namespace support {

/// The failure to make.
struct Fault {
  enum class Kind { kCall, kShort, kAllShort, kAllocation, kThread };

  Kind kind;
  std::string call;
  int error;
  size_t skip;
  bool isMade = false;  // the call is made, and then said to have failed
  /// Another one comes with it, or may. The caller then recovers from a failed step and goes on,
  /// and nothing is said about what it learns.
  bool isOfPair = false;
  std::shared_ptr<const Fault> second = nullptr;

  std::string text() const;
};

/// A step of a scenario that failed.
struct FailedStep {
  std::string name;
  ZPKErrorPtr error;
  int number;  // errno after the step
  bool hasThrown;
};

/// What a scenario is given: it makes its calls of the library in steps, which are watched, and
/// looks at the damage afterwards.
class Trial {
 public:
  using Call = std::function<bool(ZPKErrorPtr* error)>;

  explicit Trial(const Fault& fault);

  /// Makes calls of the library in which the fault may happen. False if they failed; the scenario
  /// then goes no further.
  bool step(const char* name, const Call& call);
  /// The same for calls that fail in any case, with this code and this beginning of the text.
  bool failingStep(const char* name, int code, const std::string& text, const Call& call);
  /// Ends the watch, and runs `check` on another thread: a lock that is still held would stop it.
  void afterwards(const std::function<void()>& check);
  /// For `check`: what should hold and does not.
  void expect(bool holds, const std::string& what, const ZPKErrorPtr& error = nullptr);

  /// A background thread reads: it may meet the fault at any moment, and its owner learns of that
  /// from the next call.
  bool hasReader = false;
  /// The caller need not learn of every failure: the scenario fails in any case, or what fails
  /// does so on a thread of the library.
  bool hidesFailures = false;
  /// Whose errors they are.
  enum class Kind { kStack, kServer, kConsole, kSimulator };
  Kind kind = Kind::kStack;
  /// Whether the fault can still happen.
  bool isWatching() const { return _watch.has_value(); }
  /// Whether a caller goes on after a failed step, which may then wait in vain.
  bool recovers() const { return _recovers; }
  /// What a caller does after a failed step, before it tries once more, if there are two faults.
  std::function<void()> recover;
  std::vector<SystemCall> calls;
  size_t allocations = 0;
  size_t threads = 0;
  std::vector<FailedStep> failures;
  std::vector<std::string> problems;

 private:
  void plan(const Fault& fault);
  bool attempt(const char* name, const Call& call);
  void run(const char* name, const Call& call, bool* result, FailedStep* failed);

  const bool _recovers;
  std::optional<SystemCalls> _watch;
};

/// Runs the scenario with the fault on a thread of its own and judges the result. Returns whether
/// the fault happened, and adds what is wrong to `problems`.
bool runTrial(const Fault& fault, const std::function<void(Trial&)>& scenario,
              std::vector<std::string>* problems);

/// What the code under test did in a scenario with the fault. Nothing is judged.
struct Trace {
  std::vector<SystemCall> calls;
  size_t allocations = 0;
  size_t threads = 0;
};

Trace traceOf(const Fault& fault, const std::function<void(Trial&)>& scenario);

/// The index in `calls` of the call that the fault is about; their number if it was not made.
size_t indexOf(const std::vector<SystemCall>& calls, const Fault& fault);

}  // namespace support
