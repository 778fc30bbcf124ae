#include "RealPrograms/Support/LoginMachine.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "RealPrograms/Support/Shell.h"
#include "Support/Files.h"

namespace support {
namespace {

// kPassword, as "openssl passwd -6" encrypts it.
constexpr const char* kEncryptedPassword =
    "$6$zephal$Wpe/p0TYF9qk1Z0PJ3bbd6sHOuSzDo08JB8RqGT0z1cW3ftwy1Ti7HCVrnZZLQA0.yZrutFkae5JSX1jk65b"
    "L/";

bool isRoot() { return ::geteuid() == 0; }

// An ordinary user is root in a namespace of users, which has no other user.
std::string namespaces() {
  const std::string mounts = "unshare --mount --propagation unchanged";
  return isRoot() ? mounts : mounts + " --user --map-root-user";
}

}  // namespace

std::string LoginMachine::obstacle() {
  if (isRoot()) return "";
  RealProgram attempt({{"unshare", "--user", "--map-root-user", "--mount", "true"}});
  return attempt.waitForEnd() == 0 ? "" : "no user namespaces here: " + attempt.output();
}

LoginMachine::LoginMachine() {
  writeUsers();
  const std::string machine = SUPPORT_FOLDER "/login-machine";
  _socat = std::make_unique<RealProgram>(
      RealProgram::Setup{.command = {"socat", serialPortAt(port()),
                                     "EXEC:'" + namespaces() + " " + machine + " " +
                                         _folder.path() + "',pty,setsid,stderr"},
                         .ignoresGroups = !isRoot()});
  waitForSerialPort(*_socat, port());
}

void LoginMachine::writeUsers() const {
  const std::string etc = _folder.pathOf("etc");
  std::filesystem::create_directories(etc + "/pam.d");
  writeFile(etc + "/passwd", std::string(kUser) + ":x:0:0::/home:/bin/bash\n");
  writeFile(etc + "/group", std::string(kUser) + ":x:0:\n");
  writeFile(etc + "/shadow",
            std::string(kUser) + ":" + kEncryptedPassword + ":19000:0:99999:7:::\n");
  ::chmod((etc + "/shadow").c_str(), 0600);
  writeFile(etc + "/profile", "PS1='" + std::string(kPrompt) + "' HISTFILE=\n");
  writeFile(etc + "/pam.d/login",
            "auth required pam_unix.so\n"
            "account required pam_unix.so\n"
            "session required pam_unix.so\n");
}

}  // namespace support
