#include "Stress/RandomLayers.h"

#include <utility>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Stress/Verdict.h"
#include "Support/Bytes.h"
#include "Support/LogFile.h"

namespace support {

namespace {

ZPKDataChannelPtr withTransformers(const ZPKDataChannelPtr& below) {
  const auto pass = [] { return createBlockTransformer([](ZPKMutableData*) {}, [] {}); };
  const auto event = createEventGeneratorTransformer(dataOf("7\n"), false, [] {});
  return createChannelTransformer(below, {pass(), event}, {pass()});
}

}  // namespace

TransportPeer::Kind anyTransport(Dice& dice) {
  using Kind = TransportPeer::Kind;
  constexpr Kind kKinds[] = {Kind::kTerminal, Kind::kTCP, Kind::kUnix, Kind::kAdopted};
  return kKinds[dice.below(4)];
}

RandomLayers::RandomLayers(Dice& dice, ZPKDataChannelPtr transport) : _top(std::move(transport)) {
  for (size_t left = dice.below(6); left > 0; --left) addLayer(dice);
}

void RandomLayers::addLayer(Dice& dice) {
  const char* name = "";
  switch (dice.below(8)) {
    case 0:
    case 1:
      if (_isActive) return;
      _isActive = true;
      name = "active";
      _top = createActiveChannel(_top);
      break;
    case 2: return addLog(dice);
    case 3:
      name = "transformer";
      _top = withTransformers(_top);
      break;
    case 4:
      name = "passive";
      _top = createPassiveChannel(_top);
      break;
    case 5:
      name = "echo removal";
      _top = createEchoRemovalChannel(_top, dataOf("\n"));
      break;
    case 6:
      name = "aggregating";
      _top = createAggregatingTransformerChannel(
          _top, ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf("\n")));
      break;
    default:
      if (_isSlow || !dice.oneIn(3)) return;
      _isSlow = true;
      name = "delay";
      _top = createInterCharacterDelayChannel(_top, static_cast<uint32_t>(dice.below(30)));
  }
  _names += std::string(name) + " ";
}

void RandomLayers::addLog(Dice& dice) {
  const std::string name = std::to_string(_logs++);
  const bool isSynchronous = dice.oneIn(3);
  _names += isSynchronous ? "synchronous log " : "log ";
  _top = createLoggingChannel(_top, _folder.pathOf(name), name + "-", isSynchronous);
}

void RandomLayers::requireLogged(const std::string& read, const std::string& written) const {
  for (size_t log = 0; log < _logs; ++log) {
    const std::string name = std::to_string(log);
    const std::string path = _folder.pathOf(name);
    const auto isAll = [&](const char* direction, std::string expected) {
      std::erase(expected, '\n');
      return joinedTextOfLog(path, name + direction) == expected;
    };
    require(isAll("---read", read), "not all that was read is in a log; " + names());
    require(isAll("--write", written), "not all that was written is in a log; " + names());
  }
}

}  // namespace support
