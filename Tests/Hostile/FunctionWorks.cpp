#include <ZephalIO/ZephalIO.h>

#include "Hostile/Work.h"

namespace {

void addConversions(const std::string& name, const std::string& bytes, Works* works) {
  works->push_back({"text of data", name, bytes, [](const std::string& text) {
                      const std::string shown = ZPKDataToString(ZPKData::dataWithString(text));
                      require(shown.size() >= text.size(), "text is missing");
                    }});
  works->push_back({"hexadecimal of data", name, bytes, [](const std::string& text) {
                      const auto digits =
                          ZPKHexStringFromData(ZPKData::dataWithString(text), false);
                      require(digits.size() == 2 * text.size(), "digits are missing");
                    }});
  works->push_back({"data of hexadecimal", name, bytes,
                    [](const std::string& text) { ZPKDataFromHexStringWithError(text); }});
}

void addArchive(const std::string& name, const std::string& bytes, Works* works) {
  works->push_back({"archives", name, bytes, [](const std::string& text) {
                      const std::string archive =
                          "\xa1\x6c"
                          "ArbitraryKey" +
                          text;
                      ZPKDataDefaultSerializer::init()->deserialize(
                          ZPKData::dataWithString(archive));
                    }});
}

}  // namespace

Works functionWorks() {
  Works works;
  addConversions("letters", "x", &works);
  addConversions("digits", "0", &works);
  addConversions("prefixes", "0x", &works);
  addConversions("line feeds", "\n", &works);
  addConversions("invalid UTF-8", "\xff\xc3(\xe2\x82", &works);
  addConversions("NULs", std::string(1, '\0'), &works);
  addArchive("arrays without end", "\x81", &works);
  addArchive("maps without end", "\xa1\x61k", &works);
  addArchive("lengths that lie", "\x9a\x00\x00\x40\x00", &works);
  addArchive("the largest length", "\x5b\xff\xff\xff\xff\xff\xff\xff\xff", &works);
  addArchive("NULs", std::string(1, '\0'), &works);
  return works;
}
