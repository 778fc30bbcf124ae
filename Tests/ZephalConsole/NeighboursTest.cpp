// What programs inherit that a station starts while consoles and simulated devices come and go.
#include <ZephalSimulator/SimulatedDevice.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "Support/StartedPrograms.h"
#include "Support/TemporaryFolder.h"
#include "ZephalConsole/Console.h"

namespace {

using namespace zephal;
using namespace std::chrono_literals;

// A flag that is set after a descriptor was made would leave a moment in which it is inherited.
TEST(ConsoleNeighboursTest, ProgramsStartedMeanwhileInheritNothing) {
  const support::TemporaryFolder folder;
  ConsoleOptions options{.prompt = "=> "};
  options.timeout = 30s;
  options.log = folder.pathOf("log");
  options.rawLog = folder.pathOf("raw");
  const auto inherited = support::descriptorsInheritedDuring([&] {
    for (const DeviceKind kind : {DeviceKind::kTerminal, DeviceKind::kTCP, DeviceKind::kUnix}) {
      SimulatedDevice device(kind, {.responses = {{"version", "1.0\n"}}});
      Console dut(device.url(), options);
      EXPECT_EQ(dut.ask("version"), "1.0\n");
      dut.reopen();
      EXPECT_EQ(dut.ask("version"), "1.0\n");
    }
  });
  EXPECT_EQ(inherited, std::set<std::string>());
}

}  // namespace
