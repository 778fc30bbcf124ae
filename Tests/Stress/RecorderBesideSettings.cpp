#include <atomic>

#include "Data Stack/ZPKCommLoggerStack.h"
#include "Stress/Episodes.h"
#include "Stress/FarEnd.h"
#include "Stress/RandomLayers.h"
#include "Stress/Verdict.h"
#include "Support/EventWait.h"
#include "Support/Files.h"
#include "Support/LogFile.h"
#include "Support/RunTogether.h"
#include "Support/TemporaryFolder.h"

namespace support {

namespace {

class Recording {
 public:
  explicit Recording(Dice& dice)
      : _dice(dice), _peer(anyOpenable(dice)), _stack(ZPKCommLoggerStack::init()) {}

  void run() {
    ZPKErrorPtr error;
    const bool isSet = _stack->setLogFilePath(_folder.pathOf("cut"), _folder.pathOf("raw"), &error);
    require(isSet, "cannot be configured", error);
    require(_stack->createStackWithURL(_peer.url(), &error), "cannot be created", error);
    require(_peer.open(_stack->commChannel()), "cannot be opened");
    record(NumberedBytes::kLineLength * (1 + _dice.below(3000)));
  }

 private:
  static TransportPeer::Kind anyOpenable(Dice& dice) {
    const auto kind = anyTransport(dice);
    return kind == TransportPeer::Kind::kAdopted ? TransportPeer::Kind::kUnix : kind;
  }

  void record(size_t size) {
    std::string expected = NumberedBytes(FarEnd::kSent).take(size);
    std::erase(expected, '\n');
    {
      const FarEnd farEnd(_dice, _peer.descriptor(), size);
      runTogether({[&] { awaitAll(expected); }, [this, own = _dice.child()] { configure(own); },
                   [this, own = _dice.child()] { configure(own); }});
    }
    ZPKErrorPtr error;
    require(_stack->close(&error), "cannot be closed", error);
    require(logged("raw", "pre---read") == expected, "the raw log has other bytes");
    require(expected.starts_with(logged("cut", "post--read")), "the log of units has other bytes");
  }

  std::string logged(const char* name, const char* identifier) const {
    return joinedTextOfLog(_folder.pathOf(name), identifier);
  }

  // A log grows as long as bytes arrive.
  void awaitAll(const std::string& expected) {
    const auto isThere = [&] { return logged("raw", "pre---read").size() >= expected.size(); };
    require(waitFor(isThere), "not everything is recorded");
    _isOver = true;
  }

  void configure(Dice dice) {
    const char* delimiters[] = {"\n", "7", "", "00"};
    while (!_isOver) {
      require(_stack->isOpen() == 1, "not open");
      _stack->setDelimiter(delimiters[dice.below(4)]);
      _stack->setLogFilePath(_folder.pathOf("next"));
      require(_stack->aggregator() != nullptr, "no aggregator");
      require(!_stack->createStackWithURL(_peer.url()), "created while open");
      dice.pause(std::chrono::microseconds(500));
    }
  }

  Dice& _dice;
  const TemporaryFolder _folder;
  TransportPeer _peer;
  const ZPKCommLoggerStackPtr _stack;
  std::atomic<bool> _isOver{false};
};

}  // namespace

void recorderBesideSettings(Dice& dice) { Recording(dice).run(); }

}  // namespace support
