#include "Faults/Trial.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <new>
#include <set>
#include <thread>

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
         error->description().starts_with(text);
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

// Without memory a read has nowhere to put its bytes, which the system calls a bad address.
bool isOutOfMemory(const FailedStep& step) {
  if (step.hasThrown) return true;
  if (step.error == nullptr || !isOf(step.error, 5, "Read failed with error ")) return false;
  const std::string text = step.error->description();
  return hasNumber(text, ENOMEM) || hasNumber(text, EFAULT);
}

bool isRetried(const Effect& effect, int error) {
  return std::find(effect.retried.begin(), effect.retried.end(), error) != effect.retried.end();
}

bool isEffect(const FailedStep& step, const Effect& effect, int number) {
  if (step.hasThrown || isRetried(effect, number)) return false;
  if (step.error == nullptr) {
    return effect.isSilent && (effect.code == 7 || step.number == number);
  }
  if (effect.code == -1) return step.error->domain() == "POSIX" && step.error->code() == number;
  if (!isOf(step.error, effect.code, effect.text)) return false;
  return effect.code == 7 || hasNumber(step.error->description(), number);
}

size_t indexOf(const Trial& trial, const Fault& fault) {
  size_t left = fault.skip;
  for (size_t i = 0; i < trial.calls.size(); ++i) {
    if (trial.calls[i].name == fault.call && left-- == 0) return i;
  }
  return trial.calls.size();
}

bool hasHappened(const Trial& trial, const Fault& fault) {
  if (fault.kind == Fault::Kind::kAllocation) return trial.allocations > fault.skip;
  if (fault.kind == Fault::Kind::kThread) return trial.threads > fault.skip;
  return indexOf(trial, fault) < trial.calls.size();
}

bool isAllowed(const FailedStep& step, const Trial& trial, const Fault& fault) {
  if (fault.kind == Fault::Kind::kShort || fault.kind == Fault::Kind::kAllShort) return false;
  if (trial.hasReader && isSeenAfterReader(step)) return true;
  if (fault.kind == Fault::Kind::kAllocation) return isOutOfMemory(step);
  if (fault.kind == Fault::Kind::kThread) {
    if (step.error == nullptr) return trial.hidesFailures;
    return isOf(step.error, 5, "Failed to start thread");
  }
  const std::vector<Effect> effects = effectsOf(trial.calls, indexOf(trial, fault));
  return std::any_of(effects.begin(), effects.end(),
                     [&](const Effect& effect) { return isEffect(step, effect, fault.error); });
}

// Whether the caller has to notice.
bool isSeen(const Trial& trial, const Fault& fault) {
  if (fault.kind != Fault::Kind::kCall || trial.hasReader || trial.hidesFailures) return false;
  const std::vector<Effect> effects = effectsOf(trial.calls, indexOf(trial, fault));
  return !effects.empty() &&
         std::none_of(effects.begin(), effects.end(), [&](const Effect& effect) {
           return effect.isSilent || isRetried(effect, fault.error);
         });
}

void judge(const Trial& trial, const Fault& fault, std::vector<std::string>* problems) {
  *problems = trial.problems;
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

}  // namespace

std::string Fault::text() const {
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

Trial::Trial(const Fault& fault) {
  _watch.emplace(SystemCalls::Threads::kAll);
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
    std::promise<void> end;
    std::thread thread([&] {
      const CallsWatched unwatched(false);
      Trial trial(fault);
      scenario(trial);
      judge(trial, fault, &found);
      happened = hasHappened(trial, fault);
      end.set_value();
    });
    waitForEnd(end.get_future(), fault);
    thread.join();
    problems->swap(found);
  }
  if (!problems->empty()) return happened;
  const std::string left = leftBehindSince(before);
  if (!left.empty()) problems->push_back(left);
  return happened;
}

}  // namespace support
