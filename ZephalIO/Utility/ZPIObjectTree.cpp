#include "Utility/ZPIObjectTree.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <new>
#include <stack>
#include <utility>
#include <variant>
#include <vector>

#include "Utility/ZPKString.h"

namespace {

// --- Walking.

// A dictionary or an array that the walk has entered and not yet left.
struct OpenContainer {
  explicit OpenContainer(const ZPKDictionary& dictionary)
      : isDictionary(true), entry(dictionary.begin()), lastEntry(dictionary.end()) {}
  explicit OpenContainer(const ZPKArray& array)
      : isDictionary(false), element(array.begin()), lastElement(array.end()) {}

  bool isAtEnd() const { return isDictionary ? entry == lastEntry : element == lastElement; }

  const bool isDictionary;
  ZPKDictionary::Entries::const_iterator entry, lastEntry;
  ZPKArray::Elements::const_iterator element, lastElement;
};

class Walk {
 public:
  explicit Walk(ZPIObjectVisitor* visitor) : _visitor(visitor) {}

  bool run(const ZPKObject* root) {
    if (!enter(root)) return false;
    while (!_open.empty()) {
      OpenContainer& top = _open.top();
      if (top.isAtEnd()) {
        leave();
      } else if (!step(&top)) {
        return false;
      }
    }
    return true;
  }

 private:
  bool enter(const ZPKObject* object) {
    const ZPIObjectKind kind = ZPIKindOf(object);
    if (kind == ZPIObjectKind::Dictionary) {
      const auto* dictionary = static_cast<const ZPKDictionary*>(object);
      _open.emplace(*dictionary);
      return _visitor->beginDictionary(*dictionary);
    }
    if (kind == ZPIObjectKind::Array) {
      const auto* array = static_cast<const ZPKArray*>(object);
      _open.emplace(*array);
      return _visitor->beginArray(*array);
    }
    return _visitor->leaf(kind, object);
  }

  bool step(OpenContainer* top) {
    if (!top->isDictionary) return enter((top->element++)->get());
    const ZPKDictionaryEntry& entry = *top->entry++;
    return _visitor->key(entry.key) && enter(entry.value.get());
  }

  void leave() {
    const bool isDictionary = _open.top().isDictionary;
    _open.pop();
    if (isDictionary) {
      _visitor->endDictionary();
    } else {
      _visitor->endArray();
    }
  }

  ZPIObjectVisitor* const _visitor;
  std::stack<OpenContainer> _open;
};

// --- Comparing.

using Pair = std::pair<const ZPKObject*, const ZPKObject*>;

bool pushPairs(const ZPKDictionary& left, const ZPKDictionary& right, std::vector<Pair>* pairs) {
  const auto haveSameKey = [](const auto& one, const auto& other) { return one.key == other.key; };
  if (!std::equal(left.begin(), left.end(), right.begin(), right.end(), haveSameKey)) return false;
  for (auto one = left.begin(), other = right.begin(); one != left.end(); ++one, ++other) {
    pairs->emplace_back(one->value.get(), other->value.get());
  }
  return true;
}

bool pushPairs(const ZPKArray& left, const ZPKArray& right, std::vector<Pair>* pairs) {
  if (left.count() != right.count()) return false;
  for (auto one = left.begin(), other = right.begin(); one != left.end(); ++one, ++other) {
    pairs->emplace_back(one->get(), other->get());
  }
  return true;
}

template <class Container>
bool pushPairsOf(const Container& left, const ZPKObject& right, std::vector<Pair>* pairs) {
  const auto* other = dynamic_cast<const Container*>(&right);
  return other != nullptr && pushPairs(left, *other, pairs);
}

// Whether the two objects match, apart from their parts, which are pushed to be compared later.
bool matches(const Pair& pair, std::vector<Pair>* pairs) {
  const auto [left, right] = pair;
  if (left == right) return true;
  if (left == nullptr || right == nullptr) return false;
  if (const auto* dictionary = dynamic_cast<const ZPKDictionary*>(left)) {
    return pushPairsOf(*dictionary, *right, pairs);
  }
  if (const auto* array = dynamic_cast<const ZPKArray*>(left)) {
    return pushPairsOf(*array, *right, pairs);
  }
  return left->isEqual(*right);
}

// --- Describing.

class Describer final : public ZPIObjectVisitor {
 public:
  std::string text() && { return std::move(_text); }

  bool beginDictionary(const ZPKDictionary&) override { return begin('{'); }
  bool key(const std::string& key) override {
    separate();
    appendQuoted(key);
    _text += ": ";
    _needsComma = false;
    return true;
  }
  void endDictionary() override { end('}'); }
  bool beginArray(const ZPKArray&) override { return begin('['); }
  void endArray() override { end(']'); }
  bool leaf(ZPIObjectKind kind, const ZPKObject* object) override {
    separate();
    if (kind == ZPIObjectKind::String) {
      appendQuoted(static_cast<const ZPKString*>(object)->value());
    } else {
      _text += object == nullptr ? "null" : object->debugDescription();
    }
    return true;
  }

 private:
  bool begin(char bracket) {
    separate();
    _text += bracket;
    _needsComma = false;
    return true;
  }

  void end(char bracket) {
    _text += bracket;
    _needsComma = true;
  }

  void separate() {
    if (_needsComma) _text += ", ";
    _needsComma = true;
  }

  void appendQuoted(const std::string& string) {
    _text += '"';
    for (const char character : string) appendEscaped(character);
    _text += '"';
  }

  // Control characters are escaped too, so that a description stays on one line.
  void appendEscaped(char character) {
    if (const auto code = static_cast<uint8_t>(character); code < 0x20) {
      std::array<char, 8> escape{};
      std::snprintf(escape.data(), escape.size(), "\\u%04x", code);
      _text += escape.data();
      return;
    }
    if (character == '"' || character == '\\') _text += '\\';
    _text += character;
  }

  std::string _text;
  bool _needsComma = false;
};

// --- Releasing.

using Parts = std::variant<ZPKDictionary::Entries, ZPKArray::Elements>;

// The parts that wait for the outermost release on this thread; null if none is running.
thread_local std::vector<Parts>* waitingParts = nullptr;

ZPKObjectPtr take(ZPKDictionaryEntry* entry) { return std::move(entry->value); }
ZPKObjectPtr take(ZPKObjectPtr* element) { return std::move(*element); }

// Removes the last of the waiting parts and returns it.
ZPKObjectPtr takeLast(std::vector<Parts>* waiting) {
  ZPKObjectPtr last;
  const auto takeFrom = [&last](auto* parts) {
    last = take(&parts->back());
    parts->pop_back();
    return parts->empty();
  };
  // Unlike std::visit, this cannot throw.
  Parts* const parts = &waiting->back();
  auto* const entries = std::get_if<ZPKDictionary::Entries>(parts);
  const bool isUsedUp =
      entries != nullptr ? takeFrom(entries) : takeFrom(std::get_if<ZPKArray::Elements>(parts));
  if (isUsedUp) waiting->pop_back();
  return last;
}

void release(Parts parts) {
  try {
    if (waitingParts != nullptr) {
      waitingParts->push_back(std::move(parts));
      return;
    }
    std::vector<Parts> waiting;
    waiting.push_back(std::move(parts));
    waitingParts = &waiting;
    while (!waiting.empty()) {
      // Destroyed at the end of this pass, which may add to `waiting`.
      const ZPKObjectPtr last = takeLast(&waiting);
    }
    waitingParts = nullptr;
  } catch (const std::bad_alloc&) {
    // No memory to let them wait: they are released by recursion. A destructor must not throw.
    return;
  }
}

}  // namespace

bool ZPIWalkObjectTree(const ZPKObject* root, ZPIObjectVisitor* visitor) {
  return Walk(visitor).run(root);
}

bool ZPIObjectTreesAreEqual(const ZPKObject& left, const ZPKObject& right) {
  std::vector<Pair> pairs{{&left, &right}};
  while (!pairs.empty()) {
    const Pair pair = pairs.back();
    pairs.pop_back();
    if (!matches(pair, &pairs)) return false;
  }
  return true;
}

std::string ZPIObjectTreeDescription(const ZPKObject& root) {
  Describer describer;
  ZPIWalkObjectTree(&root, &describer);
  return std::move(describer).text();
}

void ZPIReleaseWithoutRecursion(ZPKDictionary::Entries entries) {
  if (!entries.empty()) release(std::move(entries));
}

void ZPIReleaseWithoutRecursion(ZPKArray::Elements elements) {
  if (!elements.empty()) release(std::move(elements));
}
