#include <atomic>

#include "Stress/Episodes.h"
#include "Stress/NumberedBytes.h"
#include "Stress/Verdict.h"
#include "Support/Bytes.h"
#include "Support/RunTogether.h"
#include "Utility/ZPKAtomic.h"
#include "Utility/ZPKDataConversionFunctions.h"
#include "Utility/ZPKRegex.h"
#include "Utility/ZPKURL.h"

namespace support {

namespace {

class Sharing {
 public:
  explicit Sharing(Dice& dice)
      : _dice(dice), _text(NumberedBytes('s').take(1 + dice.below(5000))), _data(dataOf(_text)) {
    _newest.store(_data);
  }

  void run() {
    const size_t rounds = 20 + _dice.below(200);
    std::vector<std::function<void()>> bodies;
    for (size_t threads = 2 + _dice.below(3); threads > 0; --threads) {
      bodies.emplace_back([this, rounds, own = _dice.child()] { use(own, rounds); });
    }
    runTogether(bodies);
    require(_data->view() == _text, "shared bytes have changed");
  }

 private:
  void use(Dice dice, size_t rounds) {
    for (; rounds > 0; --rounds) {
      edit(dice);
      look();
      replace(dice);
    }
  }

  // A copy shares the bytes until it is edited.
  void edit(Dice& dice) const {
    const ZPKMutableDataPtr copy = _data->mutableCopy();
    const size_t cut = dice.below(copy->length() + 1);
    copy->dropFirst(cut);
    append(copy, "own");
    require(copy->view() == _text.substr(cut) + "own", "an edited copy is wrong");
  }

  void look() const {
    require(_data->view() == _text, "shared bytes have changed");
    require(_regex->firstMatch(_text).has_value() == (_text.size() > 9), "a wrong match");
    require(_url->host() == "127.0.0.1", "a wrong host");
  }

  // A value may be released by any thread.
  void replace(Dice& dice) {
    const auto newest = _newest.load();
    require(newest->length() <= _text.size(), "a wrong value");
    _newest.store(dataOf(_text.substr(0, dice.below(_text.size()))));
  }

  Dice& _dice;
  const std::string _text;
  const ZPKDataPtr _data;
  const ZPKRegexPtr _regex = ZPKRegex::initWithPattern("s(\\d{9})");
  const ZPKURLPtr _url = ZPKURL::initWithString("tcp://127.0.0.1:4000");
  ZPKAtomic<ZPKDataPtr> _newest;
};

}  // namespace

void sharedValues(Dice& dice) { Sharing(dice).run(); }

}  // namespace support
