#include "Soak/Tally.h"

namespace soak {

namespace {

// Enough to find a cause; a library that is broken has more than anybody reads.
constexpr size_t kMostTexts = 40;

template <class Map>
typename Map::mapped_type& entry(Map& map, std::string_view name) {
  const auto found = map.find(name);
  return found != map.end() ? found->second : map[std::string(name)];
}

}  // namespace

void Tally::countError(std::string_view name) {
  const std::scoped_lock lock(_mutex);
  ++entry(_errors, name);
}

void Tally::addDamage(std::string_view place, const Damage& damage, std::string_view evidence) {
  if (damage.isNone()) return;
  addFailure(std::string(place) + ": " + std::to_string(damage.lost) + " lost, " +
             std::to_string(damage.doubled) + " doubled, " + std::to_string(damage.foreign) +
             " foreign; " + std::string(evidence));
  const std::scoped_lock lock(_mutex);
  entry(_damage, place) += damage;
}

void Tally::addFailure(std::string_view what) {
  const std::scoped_lock lock(_mutex);
  ++_failureCount;
  if (_failures.size() == kMostTexts) return;
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - _begin;
  _failures.push_back("after " + std::to_string(static_cast<int>(elapsed.count())) +
                      " s: " + std::string(what));
}

std::map<std::string, uint64_t> Tally::errors() const {
  const std::scoped_lock lock(_mutex);
  return {_errors.begin(), _errors.end()};
}

std::map<std::string, Damage> Tally::damage() const {
  const std::scoped_lock lock(_mutex);
  return {_damage.begin(), _damage.end()};
}

std::vector<std::string> Tally::failures() const {
  const std::scoped_lock lock(_mutex);
  return _failures;
}

uint64_t Tally::failureCount() const {
  const std::scoped_lock lock(_mutex);
  return _failureCount;
}

}  // namespace soak
