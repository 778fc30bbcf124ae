// A protocol of numbered replies: FTP's control connection.
#include <ZephalConsole/Console.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RealPrograms/Support/Listener.h"
#include "RealPrograms/Support/RealProgram.h"
#include "Support/Files.h"

namespace {

using namespace support;
using namespace zephal;
using namespace std::chrono_literals;
using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;

// The last line of a reply, which may have several: "211 End". Its code is a group.
const Pattern& reply() {
  static const Pattern kReply = regex(R"((?m)^(\d{3}) [^\r\n]*\r\n)");
  return kReply;
}

class FTP : public testing::Test {
 protected:
  FTP()
      : _server({{"python3", "-m", "pyftpdlib", "--interface", _address, "--port", "4021",
                  "--directory", _files.path()}}) {
    _server.waitUntilItListens(url());
    writeFile(_files.pathOf("a-file"), "");
  }

  std::string url() const { return "tcp://" + _address + ":4021"; }
  std::string logPath() const { return _folder.pathOf("log"); }

 private:
  TemporaryFolder _folder;
  TemporaryFolder _files;
  const std::string _address = loopbackAddress();
  RealProgram _server;
};

double codeOf(Console& dut, const char* command) {
  dut.send(command);
  return dut.expect(reply()).number();
}

TEST_F(FTP, RepliesAreKnownByTheirCodes) {
  Console dut(url(), {.log = logPath(), .timeout = 60s, .lineEnd = "\r\n"});
  EXPECT_EQ(dut.expect(reply()).number(), 220);
  EXPECT_EQ(codeOf(dut, "PWD"), 530);
  EXPECT_EQ(codeOf(dut, "USER anonymous"), 331);
  dut.sendSecret("PASS me@example.org");
  EXPECT_EQ(dut.expect(reply()).number(), 230);
  dut.send("FEAT");
  const Hit features = dut.expect(reply());
  EXPECT_EQ(features.number(), 211);
  EXPECT_THAT(features.before, HasSubstr("211-Features"));
  EXPECT_EQ(codeOf(dut, "QUIT"), 221);
  EXPECT_THROW(dut.expect("never"), Disconnected);
  EXPECT_THAT(contentsOfFile(logPath()), Not(HasSubstr("example.org")));
}

TEST_F(FTP, NumbersOfAReplyArePicked) {
  Console dut(url(), {.timeout = 60s, .lineEnd = "\r\n"});
  dut.expect(reply());
  codeOf(dut, "USER anonymous");
  codeOf(dut, "PASS x");
  dut.send("PASV");
  const Hit place = dut.expect(regex(R"(227 [^(]*\((\d+),(\d+),(\d+),(\d+),(\d+),(\d+)\)\.?\r\n)"));
  EXPECT_EQ(place.number(1), 127);
  const double port = place.number(5) * 256 + place.number(6);
  const std::string address =
      place.group(1) + "." + place.group(2) + "." + place.group(3) + "." + place.group(4);
  Console data("tcp://" + address + ":" + std::to_string(static_cast<int>(port)), {.timeout = 60s});
  // The former if the server has already seen the connection.
  EXPECT_THAT(codeOf(dut, "NLST"), AnyOf(125, 150));
  EXPECT_EQ(data.expect("\r\n").before, "a-file");
  EXPECT_EQ(dut.expect(reply()).number(), 226);
  EXPECT_THROW(data.expect("never"), Disconnected);
}

}  // namespace
