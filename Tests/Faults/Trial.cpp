#include "Faults/Trial.h"

#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <new>
#include <set>
#include <thread>
#include <utility>

#include "Faults/FaultTable.h"
#include "Support/EventWait.h"
#include "Support/Possessions.h"

namespace support {

namespace {

std::string textOf(const FailedStep& step) {
  if (step.hasThrown) return step.name + " threw std::bad_alloc";
  if (step.error == nullptr) {
    return step.name + " failed without an error, errno " + std::to_string(step.number);
  }
  return step.name + " failed with " + step.error->domain() + " " +
         std::to_string(step.error->code()) + " " + step.error->description();
}

bool isOf(const ZPKErrorPtr& error, int code, const std::string& text) {
  return error->domain() == "zephalbench.zephal-communication" && error->code() == code &&
         error->description().find(text) != std::string::npos;
}

// What the owner of a background reader may see of a failure on its thread.
bool isSeenAfterReader(const FailedStep& step) {
  if (step.hasThrown) return false;
  if (step.error == nullptr) return true;
  return step.error->code() == 2 || step.error->code() == 304;
}

bool hasNumber(const std::string& text, int number) {
  return text.find("(" + std::to_string(number) + ")") != std::string::npos ||
         text.find("Error " + std::to_string(number) + " ") != std::string::npos;
}

bool isPOSIX(const ZPKErrorPtr& error, int number) {
  return error->domain() == "POSIX" && error->code() == number;
}

// A terminal's EIO says less than that the line has ended.
bool isEnd(const ZPKErrorPtr& error, int number) {
  if (error->domain() != "zephal-console" || error->code() != 3) return false;
  return number == EIO || error->description().find(std::strerror(number)) != std::string::npos;
}

bool isUnresolved(const ZPKErrorPtr& error, int number) {
  if (number == EAI_SYSTEM) return isPOSIX(error, EMFILE);
  return error->domain() == "getaddrinfo" && error->code() == number;
}

// Without memory a read has nowhere to put its bytes, which the system calls a bad address.
bool isOutOfMemory(const FailedStep& step) {
  if (step.hasThrown) return true;
  if (step.error == nullptr) return false;
  if (isEnd(step.error, ENOMEM)) return true;
  if (!isOf(step.error, 5, "Read failed with error ")) return false;
  const std::string text = step.error->description();
  return hasNumber(text, ENOMEM) || hasNumber(text, EFAULT);
}

bool isRetried(const Effect& effect, int error) {
  return std::find(effect.retried.begin(), effect.retried.end(), error) != effect.retried.end();
}

bool isEffect(const FailedStep& step, const Effect& effect, int number) {
  if (step.hasThrown || isRetried(effect, number)) return false;
  if (step.error == nullptr) {
    const bool hasNoErrno = effect.code == 7 || effect.code == Effect::kResolver;
    return effect.isSilent && (hasNoErrno || step.number == number);
  }
  if (effect.code == Effect::kErrno) return isPOSIX(step.error, number);
  if (effect.code == Effect::kEnd) return isEnd(step.error, number);
  if (effect.code == Effect::kResolver) return isUnresolved(step.error, number);
  if (!isOf(step.error, effect.code, effect.text)) return false;
  return effect.code == 7 || hasNumber(step.error->description(), number);
}

bool hasHappened(const Trial& trial, const Fault& fault) {
  if (fault.second != nullptr && !hasHappened(trial, *fault.second)) return false;
  if (fault.kind == Fault::Kind::kAllocation) return trial.allocations > fault.skip;
  if (fault.kind == Fault::Kind::kThread) return trial.threads > fault.skip;
  return indexOf(trial.calls, fault) < trial.calls.size();
}

bool isAllowed(const FailedStep& step, const Trial& trial, const Fault& fault) {
  if (fault.kind == Fault::Kind::kShort || fault.kind == Fault::Kind::kAllShort) return false;
  if (trial.hasReader && isSeenAfterReader(step)) return true;
  if (fault.kind == Fault::Kind::kAllocation) return isOutOfMemory(step);
  if (fault.kind == Fault::Kind::kThread) {
    if (step.error == nullptr) return trial.hidesFailures;
    if (trial.kind >= Trial::Kind::kConsole) return isPOSIX(step.error, fault.error);
    return isOf(step.error, 5, "Failed to start thread");
  }
  const std::vector<Effect> effects =
      effectsOf(trial.calls, indexOf(trial.calls, fault), trial.kind);
  return std::any_of(effects.begin(), effects.end(),
                     [&](const Effect& effect) { return isEffect(step, effect, fault.error); });
}

// Whether the caller has to notice.
bool isSeen(const Trial& trial, const Fault& fault) {
  if (fault.kind != Fault::Kind::kCall || trial.hasReader || trial.hidesFailures) return false;
  const std::vector<Effect> effects =
      effectsOf(trial.calls, indexOf(trial.calls, fault), trial.kind);
  return !effects.empty() &&
         std::none_of(effects.begin(), effects.end(), [&](const Effect& effect) {
           return effect.isSilent || isRetried(effect, fault.error);
         });
}

void judge(const Trial& trial, const Fault& fault, std::vector<std::string>* problems) {
  *problems = trial.problems;
  if (fault.isOfPair) return;
  const bool happened = hasHappened(trial, fault);
  for (const FailedStep& step : trial.failures) {
    if (!happened || !isAllowed(step, trial, fault)) problems->push_back(textOf(step));
  }
  for (const FailedStep& step : trial.failures) {
    if (!trial.problems.empty()) problems->push_back("after: " + textOf(step));
  }
  if (happened && trial.failures.empty() && isSeen(trial, fault)) {
    problems->push_back("nobody noticed");
  }
}

// Ends the program if a trial does not end: it could never be stopped from outside.
void waitForEnd(const std::future<void>& end, const Fault& fault) {
  if (end.wait_for(4 * kPatience) == std::future_status::ready) return;
  std::fprintf(stderr, "This trial does not end: %s\n", fault.text().c_str());
  std::abort();
}

// On a thread of its own, to be left behind if it does not end.
void runOnThread(const Fault& fault, const std::function<void(Trial&)>& scenario,
                 const std::function<void(Trial&)>& use) {
  std::promise<void> end;
  std::thread thread([&] {
    const CallsWatched unwatched(false);
    Trial trial(fault);
    scenario(trial);
    use(trial);
    end.set_value();
  });
  waitForEnd(end.get_future(), fault);
  thread.join();
}

}  // namespace

std::string Fault::text() const {
  if (second != nullptr) {
    Fault first = *this;
    first.second = nullptr;
    return first.text() + ", " + second->text();
  }
  const std::string number = " number " + std::to_string(skip + 1);
  switch (kind) {
    case Kind::kCall: return call + number + " fails with " + std::strerror(error);
    case Kind::kShort: return call + number + " transfers one byte";
    case Kind::kAllShort: return "every " + call + " transfers one byte";
    case Kind::kAllocation: return "allocation" + number + " fails";
    case Kind::kThread: return "thread" + number + " fails with " + std::strerror(error);
  }
  return "";
}

Trial::Trial(const Fault& fault) : _recovers(fault.isOfPair) {
  hidesFailures = fault.isOfPair;
  _watch.emplace(SystemCalls::Threads::kAll);
  plan(fault);
  if (fault.second != nullptr) plan(*fault.second);
}

void Trial::plan(const Fault& fault) {
  switch (fault.kind) {
    case Fault::Kind::kCall:
      if (fault.isMade) {
        _watch->failAfter(fault.call, fault.error, fault.skip);
      } else {
        _watch->fail(fault.call, fault.error, fault.skip);
      }
      break;
    case Fault::Kind::kShort: _watch->shorten(fault.call, 1, fault.skip); break;
    case Fault::Kind::kAllShort: _watch->shorten(fault.call, 1, 0, SIZE_MAX); break;
    case Fault::Kind::kAllocation: _watch->failAllocation(fault.skip); break;
    case Fault::Kind::kThread: _watch->failThread(fault.error, fault.skip); break;
  }
}

void Trial::run(const char* name, const Call& call, bool* result, FailedStep* failed) {
  ZPKErrorPtr error;
  bool hasThrown = false;
  int number = 0;
  {
    const CallsWatched watched(true);
    try {
      *result = call(&error);
    } catch (const std::bad_alloc&) {
      hasThrown = true;
    }
    number = errno;
  }
  *failed = {name, error, number, hasThrown};
}

bool Trial::step(const char* name, const Call& call) {
  if (attempt(name, call)) return true;
  if (!_recovers || recover == nullptr) return false;
  attempt("recover", [&](ZPKErrorPtr*) { return recover(), true; });
  return attempt(name, call);
}

bool Trial::attempt(const char* name, const Call& call) {
  bool result = false;
  FailedStep failed;
  run(name, call, &result, &failed);
  if (!result) failures.push_back(failed);
  return result;
}

bool Trial::failingStep(const char* name, int code, const std::string& text, const Call& call) {
  bool result = false;
  FailedStep failed;
  run(name, call, &result, &failed);
  if (result && _recovers) return true;  // after a fault, with what an earlier step has left
  if (result) {
    problems.push_back(failed.name + " did not fail");
  } else if (!(hasReader && isSeenAfterReader(failed)) &&
             (failed.error == nullptr || failed.error->code() != code ||
              !failed.error->description().starts_with(text))) {
    failures.push_back(failed);
  }
  return failures.empty() && problems.empty();
}

void Trial::afterwards(const std::function<void()>& check) {
  calls = _watch->all();
  allocations = _watch->allocations();
  threads = _watch->threads();
  _watch.reset();
  std::thread([&] {
    const CallsWatched unwatched(false);
    check();
  }).join();
}

void Trial::expect(bool holds, const std::string& what, const ZPKErrorPtr& error) {
  if (holds) return;
  problems.push_back(error == nullptr ? what : what + ": " + error->description());
}

bool runTrial(const Fault& fault, const std::function<void(Trial&)>& scenario,
              std::vector<std::string>* problems) {
  problems->clear();
  const Possessions before;
  bool happened = false;
  {
    std::vector<std::string> found;
    runOnThread(fault, scenario, [&](const Trial& trial) {
      judge(trial, fault, &found);
      happened = hasHappened(trial, fault);
    });
    problems->swap(found);
  }
  if (!problems->empty()) return happened;
  const std::string left = leftBehindSince(before);
  if (!left.empty()) problems->push_back(left);
  return happened;
}

Trace traceOf(const Fault& fault, const std::function<void(Trial&)>& scenario) {
  Trace trace;
  runOnThread(fault, scenario, [&](Trial& trial) {
    trace = {std::move(trial.calls), trial.allocations, trial.threads};
  });
  return trace;
}

size_t indexOf(const std::vector<SystemCall>& calls, const Fault& fault) {
  size_t left = fault.skip;
  for (size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].name == fault.call && left-- == 0) return i;
  }
  return calls.size();
}

}  // namespace support
