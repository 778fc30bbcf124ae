// ZPKURL beside liburiparser, on random texts.
#include <gtest/gtest.h>
#include <uriparser/Uri.h>

#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ZephalIO/ZPKURL.h"

namespace {

using Items = std::vector<std::pair<std::string, std::optional<std::string>>>;

// What liburiparser makes of a text.
class Oracle {
 public:
  explicit Oracle(const std::string& text)
      : _isURL(uriParseSingleUriA(&_uri, text.c_str(), nullptr) == URI_SUCCESS) {}
  Oracle(const Oracle&) = delete;
  Oracle& operator=(const Oracle&) = delete;
  ~Oracle() {
    if (_isURL) uriFreeUriMembersA(&_uri);
  }

  bool isURL() const { return _isURL; }
  std::optional<std::string> scheme() const { return textOf(_uri.scheme); }
  std::optional<std::string> port() const { return textOf(_uri.portText); }

  std::optional<std::string> host() const {
    const auto text = textOf(_uri.hostText);
    if (!text.has_value()) return std::nullopt;
    return unescaped(*text);
  }

  std::string path() const {
    std::string path;
    const bool isRooted = _uri.absolutePath == URI_TRUE || _uri.hostText.first != nullptr;
    for (const auto* part = _uri.pathHead; part != nullptr; part = part->next) {
      if (part != _uri.pathHead || isRooted) path += "/";
      path += textOf(part->text).value_or("");
    }
    if (_uri.pathHead == nullptr && _uri.absolutePath == URI_TRUE) path = "/";
    return unescaped(path);
  }

  // Without items that have neither name nor value, which liburiparser leaves out.
  Items items() const {
    Items items;
    UriQueryListA* list = nullptr;
    int count = 0;
    if (_uri.query.first == nullptr) return items;
    if (uriDissectQueryMallocExA(&list, &count, _uri.query.first, _uri.query.afterLast, URI_FALSE,
                                 URI_BR_DONT_TOUCH) != URI_SUCCESS) {
      return items;
    }
    for (const auto* item = list; item != nullptr; item = item->next) {
      std::optional<std::string> value;
      if (item->value != nullptr) value = item->value;
      items.emplace_back(item->key, value);
    }
    uriFreeQueryListA(list);
    return items;
  }

 private:
  static std::optional<std::string> textOf(const UriTextRangeA& range) {
    if (range.first == nullptr) return std::nullopt;
    return std::string(range.first, range.afterLast);
  }

  static std::string unescaped(std::string text) {
    const char* const end = uriUnescapeInPlaceExA(text.data(), URI_FALSE, URI_BR_DONT_TOUCH);
    text.resize(static_cast<size_t>(end - text.data()));
    return text;
  }

  UriUriA _uri{};
  const bool _isURL;
};

std::string randomURL(std::mt19937& random) {
  static constexpr std::string_view kParts[] = {"tcp:",
                                                "uart:",
                                                "unix:",
                                                "x+y.z-1:",
                                                "//",
                                                "//",
                                                "host",
                                                "10.0.0.1",
                                                "256.1.1.1",
                                                "[::1]",
                                                "[1:2:3:4:5:6:7:8]",
                                                "[1::2:3.4.5.6]",
                                                "[v1.a:b]",
                                                "[",
                                                "]",
                                                ":4000",
                                                ":",
                                                ":70000",
                                                "/",
                                                "/dev/",
                                                "%2F",
                                                "%4a",
                                                "%",
                                                "?",
                                                "?",
                                                "a=b",
                                                "&",
                                                "mode",
                                                "=",
                                                "#",
                                                "@",
                                                "user:",
                                                ".",
                                                "..",
                                                "+",
                                                " ",
                                                "\x7f",
                                                "\"",
                                                "~",
                                                ";",
                                                "1::"};
  std::string url;
  const size_t count = random() % 8;
  for (size_t i = 0; i < count; ++i) url += kParts[random() % std::size(kParts)];
  return url;
}

void expectSame(const ZPKURL& url, const Oracle& oracle, const std::string& text) {
  EXPECT_EQ(url.scheme(), oracle.scheme()) << text;
  EXPECT_EQ(url.host(), oracle.host()) << text;
  EXPECT_EQ(url.path(), oracle.path()) << text;
  const std::string port = oracle.port().value_or("");
  EXPECT_EQ(url.port().has_value(), !port.empty()) << text;
  if (!port.empty()) {
    EXPECT_EQ(url.port(), std::stoll(port)) << text;
  }
  Items items;
  for (const ZPKURLQueryItem& item : url.queryItems()) {
    if (item.name.empty() && !item.value.has_value()) continue;
    items.emplace_back(item.name, item.value);
  }
  EXPECT_EQ(items, oracle.items()) << text;
}

TEST(URLOracle, ReadsRandomTextsAsLiburiparserDoes) {
  std::mt19937 random(1);
  size_t accepted = 0;
  constexpr size_t kTexts = 100'000;
  for (size_t i = 0; i < kTexts && !HasFailure(); ++i) {
    const std::string text = randomURL(random);
    const Oracle oracle(text);
    const ZPKURLPtr url = ZPKURL::initWithString(text);
    ASSERT_EQ(url != nullptr, oracle.isURL()) << text;
    if (url == nullptr) continue;
    expectSame(*url, oracle, text);
    ++accepted;
  }
  EXPECT_GT(accepted, kTexts / 20);
}

// A difference by contract: no device and no socket has such a name.
TEST(URLOracle, RefusesAnEscapedNULThatLiburiparserAccepts) {
  EXPECT_TRUE(Oracle("unix:///a%00b").isURL());
  EXPECT_EQ(ZPKURL::initWithString("unix:///a%00b"), nullptr);
}

}  // namespace
