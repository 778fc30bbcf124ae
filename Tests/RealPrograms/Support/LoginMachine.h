#pragma once

#include <memory>
#include <string>

#include "RealPrograms/Support/RealProgram.h"
#include "Support/TemporaryFolder.h"

namespace support {

/// Debian's agetty and login on a serial port, with a user of their own; see login-machine.
class LoginMachine {
 public:
  static constexpr const char* kUser = "engineer";
  static constexpr const char* kPassword = "open-sesame";
  /// The prompt of the user's shell.
  static constexpr const char* kPrompt = "board# ";

  /// Why there can be none: always empty for root, who does not need a user namespace.
  static std::string obstacle();

  LoginMachine();

  std::string url() const { return "uart://" + port(); }

 private:
  std::string port() const { return _folder.pathOf("port"); }
  void writeUsers() const;

  TemporaryFolder _folder;
  std::unique_ptr<RealProgram> _socat;
};

}  // namespace support
