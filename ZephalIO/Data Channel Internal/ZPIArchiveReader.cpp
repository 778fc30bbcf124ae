#include "Data Channel Internal/ZPIArchiveReader.h"

#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <stack>
#include <string>
#include <typeinfo>
#include <utility>

#include "Data Channel Internal/ZPICBORHead.h"
#include "Utility/ZPIObjectPool.h"
#include "Utility/ZPIText.h"
#include "Utility/ZPKDictionary.h"
#include "Utility/ZPKString.h"

namespace {

constexpr const char* kDomain = "CBOR";

const char* textOf(ZPIArchiveError error) {
  switch (error) {
    case ZPIArchiveError::TooShort: return "the archive ends too early";
    case ZPIArchiveError::TrailingBytes: return "there are bytes behind the archive";
    case ZPIArchiveError::NotAllowed: return "an item that no archive has";
    case ZPIArchiveError::NotCanonical: return "an item that is not in canonical form";
    case ZPIArchiveError::NotText: return "text that is not UTF-8";
  }
  return "";
}

ZPKErrorPtr makeError(ZPIArchiveError error, size_t position) {
  const std::string text = std::string(textOf(error)) + ", at byte " + std::to_string(position);
  return ZPKError::init(kDomain, static_cast<int>(error),
                        {{std::string(ZPKErrorDescriptionKey), text}});
}

bool isSizedByItsBytes(ZPICBORKind kind) {
  return kind == ZPICBORKind::Bytes || kind == ZPICBORKind::Text;
}

// --- The check of the whole archive.

class Checker {
 public:
  explicit Checker(std::string_view bytes) : _bytes(bytes) {}

  size_t position() const { return _at; }

  // Returns what is wrong at position(), or nothing.
  std::optional<ZPIArchiveError> run() {
    if (!startsWithMap()) return _problem;
    while (!_open.empty()) {
      Container& top = _open.top();
      if (top.left == 0) {
        _open.pop();
        continue;
      }
      --top.left;
      if (!(top.isArray() || checkKey(&top)) || !checkValue()) return _problem;
    }
    if (_at != _bytes.size()) return ZPIArchiveError::TrailingBytes;
    return std::nullopt;
  }

 private:
  // An array or map that has more items to come. Small, since one byte is enough to open an array.
  struct Container {
    static constexpr size_t kArray = std::numeric_limits<size_t>::max();
    static constexpr size_t kNoKey = 0;  // the position of the archive's own head

    bool isArray() const { return lastKey == kArray; }

    size_t left;     // the number of elements or pairs
    size_t lastKey;  // where the last key begins
  };

  size_t remaining() const { return _bytes.size() - _at; }

  bool fail(ZPIArchiveError problem) {
    _problem = problem;
    return false;
  }

  bool startsWithMap() {
    ZPICBORHead head;
    if (!peekHead(&head)) return false;
    if (head.kind != ZPICBORKind::Map) return fail(ZPIArchiveError::NotAllowed);
    return checkValue();
  }

  bool peekHead(ZPICBORHead* head) {
    switch (ZPIReadCBORHead(_bytes.substr(_at), head)) {
      case ZPICBORHeadResult::Good: return true;
      case ZPICBORHeadResult::TooShort: return fail(ZPIArchiveError::TooShort);
      case ZPICBORHeadResult::NotAllowed: return fail(ZPIArchiveError::NotAllowed);
      case ZPICBORHeadResult::NotCanonical: return fail(ZPIArchiveError::NotCanonical);
    }
    return fail(ZPIArchiveError::NotAllowed);
  }

  bool checkKey(Container* map) {
    ZPICBORHead head;
    if (!peekHead(&head)) return false;
    if (head.kind != ZPICBORKind::Text) return fail(ZPIArchiveError::NotAllowed);
    const size_t start = _at;
    if (!checkSized(head)) return false;
    if (map->lastKey != Container::kNoKey && !isBefore(map->lastKey, start)) {
      _at = start;
      return fail(ZPIArchiveError::NotCanonical);
    }
    map->lastKey = start;
    return true;
  }

  // Canonical order is the order of the keys' encoded bytes. No encoded key is the beginning of
  // another, so it is enough to compare as many bytes as the later key has.
  bool isBefore(size_t earlierKey, size_t laterKey) const {
    return std::memcmp(_bytes.data() + earlierKey, _bytes.data() + laterKey, _at - laterKey) < 0;
  }

  bool checkValue() {
    ZPICBORHead head;
    if (!peekHead(&head)) return false;
    if (isSizedByItsBytes(head.kind)) return checkSized(head);
    if (head.kind == ZPICBORKind::Tag) return fail(ZPIArchiveError::NotAllowed);
    if (head.kind == ZPICBORKind::Negative &&
        head.argument > uint64_t{std::numeric_limits<int64_t>::max()}) {
      return fail(ZPIArchiveError::NotAllowed);  // below every 64-bit integer
    }
    if (head.kind == ZPICBORKind::Array) return open(head, 1, Container::kArray);
    if (head.kind == ZPICBORKind::Map) return open(head, 2, Container::kNoKey);
    _at += head.length;
    return true;
  }

  bool checkSized(const ZPICBORHead& head) {
    const size_t start = _at;
    _at += head.length;
    if (head.argument > remaining()) return failAt(start, ZPIArchiveError::TooShort);
    const std::string_view content = _bytes.substr(_at, static_cast<size_t>(head.argument));
    if (head.kind == ZPICBORKind::Text && !ZPIIsValidUTF8(content)) {
      return failAt(start, ZPIArchiveError::NotText);
    }
    _at += content.size();
    return true;
  }

  // Every item takes at least one byte, so a count that is too large is detected immediately.
  bool open(const ZPICBORHead& head, size_t bytesPerItem, size_t lastKey) {
    const size_t start = _at;
    _at += head.length;
    if (head.argument > remaining() / bytesPerItem) {
      return failAt(start, ZPIArchiveError::TooShort);
    }
    _open.push({static_cast<size_t>(head.argument), lastKey});
    return true;
  }

  bool failAt(size_t position, ZPIArchiveError problem) {
    _at = position;
    return fail(problem);
  }

  const std::string_view _bytes;
  size_t _at = 0;
  std::stack<Container> _open;
  std::optional<ZPIArchiveError> _problem;
};

// --- Decoding of an archive that has been checked.

class Decoder {
 public:
  Decoder(std::string_view bytes, const ZPKClassSet& classes)
      : _rest(bytes),
        _takesDictionaries(classes.contains(typeid(ZPKDictionary))),
        _takesStrings(classes.contains(typeid(ZPKString))),
        _takesNumbers(classes.contains(typeid(ZPKNumber))),
        _takesData(classes.contains(typeid(ZPKData))) {}

  // Reads the head of the archive's own map and returns its number of pairs.
  size_t readMap() { return static_cast<size_t>(readHead().argument); }

  std::string_view readKey() { return take(readHead().argument); }

  // Null if a part of the object is of a class that is not accepted.
  ZPKObjectPtr readObject() {
    for (;;) {
      const ZPICBORHead head = readHead();
      if (head.kind == ZPICBORKind::Map && head.argument > 0 && _takesDictionaries) {
        open(head.argument);
        continue;
      }
      ZPKObjectPtr object = makeLeaf(head);
      if (object == nullptr) return nullptr;
      while (object != nullptr && !_open.empty()) object = put(std::move(object));
      if (object != nullptr) return object;
    }
  }

 private:
  // A dictionary whose entries are being read; the last of them waits for its value.
  struct OpenDictionary {
    ZPKDictionary::Entries entries;
    size_t left;
  };

  ZPICBORHead readHead() {
    ZPICBORHead head;
    ZPIReadCBORHead(_rest, &head);
    _rest.remove_prefix(head.length);
    return head;
  }

  // The check has made sure that there are this many bytes.
  std::string_view take(uint64_t length) {
    const std::string_view taken = _rest.substr(0, static_cast<size_t>(length));
    _rest.remove_prefix(taken.size());
    return taken;
  }

  void open(uint64_t count) {
    OpenDictionary& dictionary = _open.emplace();
    dictionary.left = static_cast<size_t>(count);
    dictionary.entries.reserve(dictionary.left);  // the check has seen this many pairs
    nextKey(&dictionary);
  }

  void nextKey(OpenDictionary* dictionary) {
    dictionary->entries.emplace_back(readKey(), _noValue);
    --dictionary->left;
  }

  // Puts an object into the innermost dictionary. Returns that dictionary if this completes it,
  // otherwise null.
  ZPKObjectPtr put(ZPKObjectPtr object) {
    OpenDictionary& top = _open.top();
    top.entries.back().value = std::move(object);
    if (top.left > 0) {
      nextKey(&top);
      return nullptr;
    }
    // The check has made sure that the keys are in order and differ, and no value is null.
    ZPKObjectPtr dictionary = _pool.makeWithKey<ZPKDictionary>(std::move(top.entries));
    _open.pop();
    return dictionary;
  }

  ZPKObjectPtr makeLeaf(const ZPICBORHead& head) {
    switch (head.kind) {
      case ZPICBORKind::Map: return _takesDictionaries ? ZPKDictionary::init() : nullptr;
      case ZPICBORKind::Text: return _takesStrings ? makeString(head) : nullptr;
      case ZPICBORKind::Bytes: return _takesData ? makeData(head) : nullptr;
      case ZPICBORKind::Array:
      case ZPICBORKind::Tag: return nullptr;
      default: return _takesNumbers ? makeNumber(head) : nullptr;
    }
  }

  ZPKObjectPtr makeString(const ZPICBORHead& head) {
    return _pool.makeWithKey<ZPKString>(std::string(take(head.argument)));
  }

  ZPKObjectPtr makeData(const ZPICBORHead& head) {
    const std::string_view bytes = take(head.argument);
    return ZPKData::dataWithBytes(bytes.data(), bytes.size());
  }

  ZPKObjectPtr makeNumber(const ZPICBORHead& head) {
    const auto number = [this](auto value) { return _pool.make<ZPKNumber>(value); };
    if (head.kind == ZPICBORKind::Unsigned) return number(head.argument);
    if (head.kind == ZPICBORKind::Negative) return number(static_cast<int64_t>(~head.argument));
    if (head.information == kZPICBORNull) return nullptr;
    if (head.information == kZPICBORDouble) return number(std::bit_cast<double>(head.argument));
    return number(head.information == kZPICBORTrue);
  }

  std::string_view _rest;
  std::stack<OpenDictionary> _open;
  ZPIObjectPool _pool;
  const ZPKValue _noValue{nullptr};  // the value of an entry until its own has been read
  const bool _takesDictionaries;
  const bool _takesStrings;
  const bool _takesNumbers;
  const bool _takesData;
};

}  // namespace

std::unique_ptr<ZPIArchiveReader> ZPIArchiveReader::initForReading(const ZPKDataPtr& data,
                                                                   ZPKErrorPtr* error) {
  Checker checker(data == nullptr ? std::string_view() : data->view());
  if (const auto problem = checker.run()) {
    if (error != nullptr) *error = makeError(*problem, checker.position());
    return nullptr;
  }
  return std::make_unique<ZPIArchiveReader>(Key(), data);
}

ZPKObjectPtr ZPIArchiveReader::decodeObjectForKey(std::string_view key,
                                                  const ZPKClassSet& classes) const {
  Decoder decoder(_data->view(), classes);
  if (decoder.readMap() != 1 || decoder.readKey() != key) return nullptr;
  return decoder.readObject();
}
