#include "Models/URLModel.h"

#include <limits>
#include <regex>

namespace {

const std::string kEscaped = "%[0-9A-Fa-f]{2}";
const std::string kUnreserved = "A-Za-z0-9._~";
const std::string kDelimiters = "!$&'()*+,;=-";  // and what must be last
const std::string kPathCharacter = "(?:[:@" + kUnreserved + kDelimiters + "]|" + kEscaped + ")";
const std::string kQueryCharacter = "(?:[/?:@" + kUnreserved + kDelimiters + "]|" + kEscaped + ")";
const std::string kSegment = kPathCharacter + "*";
const std::string kFilledSegment = kPathCharacter + "+";
const std::string kSegmentWithoutColon =
    "(?:[@" + kUnreserved + kDelimiters + "]|" + kEscaped + ")+";

const std::string kFourGroups = "[0-9A-Fa-f]{1,4}";
const std::string kByte = "(?:25[0-5]|2[0-4][0-9]|1[0-9]{2}|[1-9]?[0-9])";
const std::string kDotted = kByte + "(?:\\." + kByte + "){3}";

// 16-bit groups separated by colons, as many as stated.
std::string groups(int least, int most) {
  return "(?:" + kFourGroups + ":){" + std::to_string(least) + "," + std::to_string(most) + "}";
}

std::string addressRule() {
  const std::string last = "(?:" + kFourGroups + ":" + kFourGroups + "|" + kDotted + ")";
  std::string rule = groups(6, 6) + last;
  const auto before = [](int most) {
    if (most < 0) return std::string();
    return "(?:" + groups(0, most) + kFourGroups + ")?";
  };
  for (int front = 0; front <= 5; ++front) {
    rule += "|" + before(front - 1) + "::" + groups(5 - front, 5 - front) + last;
  }
  rule += "|" + before(5) + "::" + kFourGroups;
  return rule + "|" + before(6) + "::";
}

const std::string kUser = "(?:(?:[:" + kUnreserved + kDelimiters + "]|" + kEscaped + ")*@)?";
const std::string kName = "(?:[" + kUnreserved + kDelimiters + "]|" + kEscaped + ")*";
const std::string kFuture = "[vV][0-9A-Fa-f]+\\.[:" + kUnreserved + kDelimiters + "]+";
// 1: an address, 2: a name, 3: a port.
const std::string kAuthority =
    kUser + "(?:\\[(" + addressRule() + "|" + kFuture + ")\\]|(" + kName + "))(?::([0-9]*))?";
const std::string kPathAfterAuthority = "(?:/" + kSegment + ")*";
const std::string kRootedPath = "/(?:" + kFilledSegment + "(?:/" + kSegment + ")*)?";
const std::string kPathAfterScheme =
    "(?:" + kRootedPath + "|" + kFilledSegment + "(?:/" + kSegment + ")*|)";
const std::string kRelativePath =
    "(?:" + kRootedPath + "|" + kSegmentWithoutColon + "(?:/" + kSegment + ")*|)";
// 1: the query.
const std::string kEnd = "(?:\\?(" + kQueryCharacter + "*))?(?:#" + kQueryCharacter + "*)?";

const std::regex kWithAuthority("(?:([A-Za-z][A-Za-z0-9+.-]*):)?//" + kAuthority + "(" +
                                kPathAfterAuthority + ")" + kEnd);
const std::regex kWithScheme("([A-Za-z][A-Za-z0-9+.-]*):(" + kPathAfterScheme + ")" + kEnd);
const std::regex kRelative("(" + kRelativePath + ")" + kEnd);

std::string unescaped(const std::string& text) {
  std::string result;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      result += text[at];
      continue;
    }
    result += static_cast<char>(std::stoul(text.substr(at + 1, 2), nullptr, 16));
    at += 2;
  }
  return result;
}

std::optional<std::string> ifMatched(const std::ssub_match& group) {
  if (!group.matched) return std::nullopt;
  return group.str();
}

std::optional<int64_t> portOf(const std::string& digits) {
  if (digits.empty()) return std::nullopt;
  try {
    return std::stoll(digits);
  } catch (const std::out_of_range&) {
    return std::numeric_limits<int64_t>::max();
  }
}

void addItems(std::string query, URLModel* model) {
  if (query.empty()) return;
  query += '&';
  for (size_t end = query.find('&'); end != std::string::npos; end = query.find('&')) {
    const std::string item = query.substr(0, end);
    const size_t equals = item.find('=');
    std::optional<std::string> value;
    if (equals != std::string::npos) value = unescaped(item.substr(equals + 1));
    model->items.emplace_back(unescaped(item.substr(0, equals)), value);
    query.erase(0, end + 1);
  }
}

}  // namespace

std::optional<URLModel> URLModel::parsed(const std::string& text) {
  if (text.find("%00") != std::string::npos) return std::nullopt;
  URLModel model;
  std::smatch match;
  if (std::regex_match(text, match, kWithAuthority)) {
    model.scheme = ifMatched(match[1]);
    model.host = match[2].matched ? match[2].str() : unescaped(match[3].str());
    model.port = portOf(match[4].str());
    model.path = unescaped(match[5].str());
    addItems(match[6].str(), &model);
    return model;
  }
  if (std::regex_match(text, match, kWithScheme)) {
    model.scheme = match[1].str();
    model.path = unescaped(match[2].str());
    addItems(match[3].str(), &model);
    return model;
  }
  if (!std::regex_match(text, match, kRelative)) return std::nullopt;
  model.path = unescaped(match[1].str());
  addItems(match[2].str(), &model);
  return model;
}
