#include "Faults/FaultPairs.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include "Faults/FaultTable.h"

namespace support {

namespace {

// Other pairs in each scenario.
std::mt19937 startOf(const std::string& name, int seed) {
  std::seed_seq seeds(name.begin(), name.end());
  std::mt19937 random(seeds);
  random.discard(static_cast<unsigned long long>(seed) * 1000);
  return random;
}

const FaultRow* rowOf(const SystemCall& call) {
  const auto found = std::find_if(faultTable().begin(), faultTable().end(),
                                  [&](const FaultRow& row) { return call.name == row.call; });
  return found == faultTable().end() ? nullptr : &*found;
}

// Where in the trace the calls after the fault begin.
size_t endOf(const Fault& fault, const Trace& trace) {
  if (fault.kind == Fault::Kind::kCall) return indexOf(trace.calls, fault) + 1;
  const auto later =
      std::find_if(trace.calls.begin(), trace.calls.end(),
                   [&](const SystemCall& call) { return call.allocations > fault.skip; });
  return static_cast<size_t>(later - trace.calls.begin());
}

// Those that can fail.
std::vector<size_t> callsFrom(size_t index, const std::vector<SystemCall>& calls) {
  std::vector<size_t> found;
  for (; index < calls.size(); ++index) {
    if (rowOf(calls[index]) != nullptr) found.push_back(index);
  }
  return found;
}

}  // namespace

FaultPairs::FaultPairs(const Scenario& scenario, int seed)
    : _scenario(scenario),
      _random(startOf(scenario.name, seed)),
      _undisturbed(traceOf({Fault::Kind::kCall, "", 0, 0}, scenario.run)) {}

Fault FaultPairs::call(const std::vector<SystemCall>& calls, size_t index) {
  const SystemCall& chosen = calls[index];
  const auto here = calls.begin() + static_cast<std::ptrdiff_t>(index);
  const auto skip = std::count_if(
      calls.begin(), here, [&](const SystemCall& other) { return other.name == chosen.name; });
  const std::vector<int>& errors = rowOf(chosen)->errors;
  Fault fault{Fault::Kind::kCall, chosen.name, errors[below(errors.size())],
              static_cast<size_t>(skip)};
  fault.isMade = isMadeAnyway(fault, _scenario.name);
  return fault;
}

Fault FaultPairs::first() {
  const std::vector<size_t> calls = callsFrom(0, _undisturbed.calls);
  if (_undisturbed.allocations > 0 && (below(3) == 0 || calls.empty())) {
    return {Fault::Kind::kAllocation, "", ENOMEM, below(_undisturbed.allocations)};
  }
  return call(_undisturbed.calls, calls[below(calls.size())]);
}

// Only one allocation of a trial can fail.
std::optional<Fault> FaultPairs::second(const Fault& first, const Trace& trace) {
  const size_t end = endOf(first, trace);
  if (first.kind == Fault::Kind::kCall && end <= trace.calls.size() && below(3) == 0) {
    const size_t before = trace.calls[end - 1].allocations;
    if (before < trace.allocations) {
      const size_t skip = before + below(trace.allocations - before);
      return Fault{Fault::Kind::kAllocation, "", ENOMEM, skip};
    }
  }
  if (trace.threads > 0 && below(8) == 0) {
    return Fault{Fault::Kind::kThread, "", EAGAIN, below(trace.threads)};
  }
  const std::vector<size_t> calls = callsFrom(end, trace.calls);
  if (calls.empty()) return std::nullopt;
  return call(trace.calls, calls[below(calls.size())]);
}

std::optional<Fault> FaultPairs::next() {
  constexpr int kTries = 10;
  for (int i = 0; i < kTries; ++i) {
    Fault fault = first();
    fault.isOfPair = true;
    const std::optional<Fault> other = second(fault, traceOf(fault, _scenario.run));
    if (!other.has_value()) continue;
    fault.second = std::make_shared<Fault>(*other);
    return fault;
  }
  return std::nullopt;
}

}  // namespace support
