#include "PeerArchive.h"

#ifndef ZEPHALIO_BENCH_HAS_NLOHMANN

std::optional<PeerArchive> nlohmannArchive(std::string_view /*archive*/) { return std::nullopt; }

#else

#include <cstdlib>
#include <nlohmann/json.hpp>

std::optional<PeerArchive> nlohmannArchive(std::string_view archive) {
  using nlohmann::json;
  return PeerArchive{[document = json::from_cbor(archive)] {
                       if (json::to_cbor(document).empty()) std::exit(1);
                     },
                     [archive] {
                       if (json::from_cbor(archive).empty()) std::exit(1);
                     }};
}

#endif
