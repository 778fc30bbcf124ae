#include "PeerArchive.h"

#ifndef ZEPHALIO_BENCH_HAS_LIBCBOR

std::optional<PeerArchive> libcborArchive(std::string_view /*archive*/) { return std::nullopt; }

#else

#include <cbor.h>

#include <cstdlib>
#include <memory>

namespace {

struct Released {
  void operator()(cbor_item_t* item) const { cbor_decref(&item); }
};

std::shared_ptr<cbor_item_t> load(std::string_view archive) {
  cbor_load_result result{};
  cbor_item_t* item =
      cbor_load(reinterpret_cast<const uint8_t*>(archive.data()), archive.size(), &result);
  if (item == nullptr) std::exit(1);
  return {item, Released()};
}

void serialize(const cbor_item_t* item, size_t length) {
  uint8_t* bytes = nullptr;
  size_t capacity = 0;
  if (cbor_serialize_alloc(item, &bytes, &capacity) != length) std::exit(1);
  std::free(bytes);
}

}  // namespace

std::optional<PeerArchive> libcborArchive(std::string_view archive) {
  return PeerArchive{
      [document = load(archive), length = archive.size()] { serialize(document.get(), length); },
      [archive] { load(archive); }};
}

#endif
