// The pieces of C++ on the page of the console.
#include <ZephalConsole/Console.h>
#include <ZephalSimulator/SimulatedDevice.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>

#include "Support/Program.h"

namespace {

using namespace std::chrono_literals;
using zephal::DeviceBehaviour;
using zephal::DeviceKind;
using zephal::DeviceLogin;
using zephal::SimulatedDevice;

bool isHealthy(const std::string& url) {
  zephal::Console dut(url, {.prompt = "# ", .log = "dut.log"});
  dut.login("root", "secret");
  const std::string version = dut.ask("version");
  const double volts = dut.ask("adc 3", zephal::regex(R"(([\d.]+) V)")).number();
  const int status = dut.run("systemctl is-active app").status;
  return version == "board 1.0\n" && volts > 3 && status == 0;
}

double temperatureOfAlarm(zephal::Console& dut) {
  const zephal::Hit hit = dut.expect({"panic", zephal::regex(R"(alarm: (\d+) C)")}, 60s);
  return hit.index == 0 ? 0 : hit.number();
}

std::string bootTextSoFar(zephal::Console& dut) {
  try {
    return dut.expect("login: ", 3s).before;
  } catch (const zephal::Timeout& timeout) {
    return timeout.received();
  }
}

bool hasAlarm(const std::string& url, const std::atomic<bool>& isStopped) {
  zephal::Console dut(url, {.isInterrupted = [&] { return isStopped.load(); }});
  try {
    dut.expect("alarm: ", 24h);
    return true;
  } catch (const zephal::Cancelled&) {
    return false;
  }
}

class ConsoleTourTest : public ProgramTest {
 protected:
  ConsoleTourTest() : _before(std::filesystem::current_path()) {
    std::filesystem::current_path(folder());
  }
  ~ConsoleTourTest() override { std::filesystem::current_path(_before); }

 private:
  std::filesystem::path _before;
};

TEST_F(ConsoleTourTest, AHealthyBoardIsRecognized) {
  DeviceBehaviour board{.bootText = "U-Boot 2024.01\n",
                        .login = DeviceLogin{.password = "secret"},
                        .prompt = "# ",
                        .echoes = true,
                        .responses = {{"version", "board 1.0\n"},
                                      {"adc 3", "rail 3: 3.25 V\n"},
                                      {"systemctl is-active app", "active\n"},
                                      {"echo $?", "0\n"}}};
  SimulatedDevice device(DeviceKind::kUnix, board);
  EXPECT_TRUE(isHealthy(device.url()));
  EXPECT_NE(contentsOf("dut.log").find("rail 3: 3.25 V"), std::string::npos);
  board.responses["echo $?"] = "3\n";
  device.setBehaviour(board);
  EXPECT_FALSE(isHealthy(device.url()));
}

TEST_F(ConsoleTourTest, AnAlarmIsFound) {
  SimulatedDevice device(DeviceKind::kUnix);
  zephal::Console dut(device.url());
  device.send("alarm: 71 C\npanic\n");
  EXPECT_EQ(temperatureOfAlarm(dut), 71);
  EXPECT_EQ(temperatureOfAlarm(dut), 0);
}

TEST_F(ConsoleTourTest, WhatCameBeforeATimeOutIsShown) {
  SimulatedDevice device(DeviceKind::kUnix);
  zephal::Console dut(device.url());
  device.send("booting\n");
  EXPECT_EQ(bootTextSoFar(dut), "booting\n");
  device.send("login: ");
  EXPECT_EQ(bootTextSoFar(dut), "booting\n");
}

TEST_F(ConsoleTourTest, AWaitOfADayCanBeEnded) {
  SimulatedDevice device(DeviceKind::kUnix, {.bootText = "alarm: 71 C\n"});
  std::atomic<bool> isStopped{false};
  EXPECT_TRUE(hasAlarm(device.url(), isStopped));
  isStopped = true;
  EXPECT_FALSE(hasAlarm(device.url(), isStopped));
}

}  // namespace
