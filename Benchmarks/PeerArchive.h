#pragma once

#include <functional>
#include <optional>
#include <string_view>

/// How a peer reads and writes the document that one CBOR archive holds. Each result is thrown away
/// within the call.
struct PeerArchive {
  std::function<void()> write;
  std::function<void()> read;
};

/// Empty if this program was built without the peer. The bytes must outlive the result.
std::optional<PeerArchive> nlohmannArchive(std::string_view archive);
std::optional<PeerArchive> libcborArchive(std::string_view archive);
