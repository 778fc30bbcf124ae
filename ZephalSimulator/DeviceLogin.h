#pragma once

#include <string>

namespace zephal {

/// A login, as a Linux console asks for it. The device asks after it has booted; then it is a
/// console, until `logout` is sent or it reboots. Like a serial console, it does not notice that
/// the peer connects anew.
struct DeviceLogin {
  /// Who may log in.
  std::string user = "root";
  /// Empty: the device asks for none.
  std::string password = {};
  /// Asks for the user.
  std::string userPrompt = "login: ";
  /// Asks for the password.
  std::string passwordPrompt = "Password: ";
  /// What a wrong user or password is answered with; the device then asks for the user again.
  std::string refusal = "\nLogin incorrect\n";
  /// Sent after a login, before the prompt.
  std::string welcome = {};
  /// The command that ends the session.
  std::string logout = "exit";
};

}  // namespace zephal
