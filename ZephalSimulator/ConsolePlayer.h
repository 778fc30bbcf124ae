#pragma once

#include <string>
#include <string_view>

#include "DevicePlayer.h"

namespace zephal {

/// A text console, by its behaviour: a login if there is one, then commands and answers.
class ConsolePlayer final : public DevicePlayer {
 public:
  DeviceReaction start(const DeviceBehaviour& behaviour) override;
  DeviceReaction take(std::string_view bytes, const DeviceBehaviour& behaviour) override;
  void endConnection() override;

 private:
  enum class Stage { kUser, kPassword, kConsole };

  void takeCommand(const std::string& command, const DeviceBehaviour& behaviour,
                   DeviceReaction* reaction);
  DeviceAnswer answerTo(const std::string& command, const DeviceBehaviour& behaviour,
                        DeviceReaction* reaction);
  DeviceAnswer answerToUser(const std::string& user, const DeviceLogin& login);
  DeviceAnswer answerToPassword(const std::string& password, const DeviceLogin& login);
  DeviceAnswer letIn(const DeviceLogin& login);
  DeviceAnswer askAgain(const DeviceLogin& login, const std::string& text);

  std::string _pending;  // received, not yet a whole command
  Stage _stage = Stage::kConsole;
  std::string _user;  // in kPassword: who asks to be let in
};

}  // namespace zephal
