#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "Support/FullListener.h"
#include "Support/LogCapture.h"
#include "Support/OpenDescriptors.h"
#include "Support/OrdinaryUser.h"
#include "Support/StandardOutputCapture.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryFolder.h"
#include "Utility/ZPIUnixSocketFunctions.h"

using namespace support;

namespace {

using testing::ElementsAre;

constexpr size_t kLongestPath = sizeof(sockaddr_un::sun_path) - 1;

bool isSocketFile(const std::string& path) {
  return std::filesystem::is_socket(std::filesystem::symlink_status(path));
}

std::string busyLine(const std::string& path) {
  return "Warning : sock_path " + path + " is busy (errno=" + std::to_string(EADDRINUSE) + ")\n";
}

std::string restrictedLine(const std::string& path, int number) {
  return "Warning : sock_path " + path + " is restricted (errno=" + std::to_string(number) + ")\n";
}

class ZPIUnixSocketFunctionsTest : public testing::Test {
 protected:
  ZPIUnixSocketFunctionsTest() : _before(openDescriptors()) {}

  // Closes a descriptor at the end of the test.
  int kept(int descriptor) {
    if (descriptor >= 0) _kept.insert(descriptor);
    return descriptor;
  }

  ~ZPIUnixSocketFunctionsTest() override {
    for (const int descriptor : _kept) ::close(descriptor);
    EXPECT_EQ(openDescriptors(), _before);
  }

  // Leaves a socket file without a listener.
  void leaveStaleFile(const std::string& path) {
    ::close(passive_unix(path));
    ASSERT_TRUE(isSocketFile(path));
  }

  const std::set<int> _before;
  std::set<int> _kept;
  TemporaryFolder _folder;
  const std::string _path = _folder.pathOf("socket");
};

TEST_F(ZPIUnixSocketFunctionsTest, ListensAndConnects) {
  StandardOutputCapture output;
  const int listener = kept(passive_unix(_path));
  ASSERT_GE(listener, 0);
  const int client = kept(active_unix(_path));
  ASSERT_GE(client, 0);
  const int server = kept(::accept(listener, nullptr, nullptr));
  EXPECT_EQ(::send(server, "hello", 5, MSG_NOSIGNAL), 5);
  char buffer[8];
  EXPECT_EQ(::recv(client, buffer, sizeof buffer, 0), 5);
  EXPECT_EQ(output.text(), "");
}

TEST_F(ZPIUnixSocketFunctionsTest, MakesItsCallsInOrder) {
  SystemCalls calls;
  kept(passive_unix(_path));
  EXPECT_THAT(calls.texts(), ElementsAre("socket AF_UNIX", "setsockopt SOL_SOCKET SO_REUSEPORT 1",
                                         "bind AF_UNIX " + _path, "listen 5"));
  EXPECT_EQ(calls.all()[2].size, static_cast<int64_t>(sizeof(sockaddr_un)));
  calls.clear();
  kept(active_unix(_path));
  // No TCP options, and no keep-alive.
  EXPECT_THAT(calls.texts(), ElementsAre("socket AF_UNIX", "connect AF_UNIX " + _path));
  EXPECT_EQ(calls.all()[1].size, static_cast<int64_t>(sizeof(sockaddr_un)));
}

TEST_F(ZPIUnixSocketFunctionsTest, AFailedConnectIsSilent) {
  LogCapture log;
  StandardOutputCapture output;
  EXPECT_EQ(active_unix(_path), -1);
  EXPECT_EQ(errno, ENOENT);
  leaveStaleFile(_path);
  EXPECT_EQ(active_unix(_path), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(output.text(), "");
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ZPIUnixSocketFunctionsTest, ASignalDoesNotEndAConnect) {
  FullListener listener(FullListener::Kind::kUnix);
  int client = -1;
  connectUnderSignals([&] { client = active_unix(listener.path()); }, [&] { listener.makeRoom(); });
  ASSERT_GE(kept(client), 0);
  EXPECT_EQ(::send(client, "x", 1, MSG_NOSIGNAL), 1);
}

TEST_F(ZPIUnixSocketFunctionsTest, ARefusalAfterASignalIsReportedAsTheReason) {
  FullListener listener(FullListener::Kind::kUnix);
  int result = 0;
  int reason = 0;
  connectUnderSignals(
      [&] {
        errno = 0;
        result = active_unix(listener.path());
        reason = errno;
      },
      [&] { listener.goAway(); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(reason, ECONNREFUSED);
}

TEST_F(ZPIUnixSocketFunctionsTest, ASignalDuringTheProbeKeepsALiveListenersFile) {
  FullListener listener(FullListener::Kind::kUnix);
  StandardOutputCapture output;
  int result = 0;
  connectUnderSignals([&] { result = passive_unix(listener.path()); },
                      [&] { listener.makeRoom(); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(output.text(), busyLine(listener.path()));
  EXPECT_TRUE(isSocketFile(listener.path()));
}

// True if SIGPIPE would still end the process after a connection; runs in a fresh process.
bool keepsSigpipe(const std::string& path, ZPISocketOwner owner) {
  const ChildResult result = runInChild([&](std::string*) {
    ::signal(SIGPIPE, SIG_DFL);
    if (active_unix(path, owner) < 0) return 2;
    return ::signal(SIGPIPE, SIG_DFL) == SIG_DFL ? 1 : 0;
  });
  EXPECT_THAT(result.status, testing::AnyOf(0, 1));
  return result.status == 1;
}

TEST_F(ZPIUnixSocketFunctionsTest, ChannelsLeaveTheDispositionOfSigpipeAlone) {
  kept(passive_unix(_path));
  EXPECT_FALSE(keepsSigpipe(_path, ZPISocketOwner::kUser));
  EXPECT_TRUE(keepsSigpipe(_path, ZPISocketOwner::kLibrary));
}

TEST_F(ZPIUnixSocketFunctionsTest, WithoutASocketErrnoSaysWhyThereIsNone) {
  SystemCalls calls;
  calls.fail("socket", EMFILE);
  errno = 0;
  EXPECT_EQ(active_unix(_path), -1);
  EXPECT_EQ(errno, EMFILE);
}

TEST_F(ZPIUnixSocketFunctionsTest, ASocketFileWithoutAListenerIsReplaced) {
  leaveStaleFile(_path);
  StandardOutputCapture output;
  SystemCalls calls;
  const int listener = kept(passive_unix(_path));
  ASSERT_GE(listener, 0);
  EXPECT_EQ(output.text(), "");
  EXPECT_GE(kept(active_unix(_path)), 0);
  EXPECT_THAT(calls.texts({"bind", "lstat", "connect", "unlink"}),
              ElementsAre("bind AF_UNIX " + _path, "lstat " + _path, "connect AF_UNIX " + _path,
                          "unlink " + _path, "bind AF_UNIX " + _path, "connect AF_UNIX " + _path));
}

TEST_F(ZPIUnixSocketFunctionsTest, ALiveListenerKeepsItsFile) {
  LogCapture log;
  const int first = kept(passive_unix(_path));
  ASSERT_GE(first, 0);
  StandardOutputCapture output;
  EXPECT_EQ(passive_unix(_path), -1);
  EXPECT_EQ(output.text(), busyLine(_path));
  EXPECT_TRUE(isSocketFile(_path));
  EXPECT_GE(kept(active_unix(_path)), 0);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ZPIUnixSocketFunctionsTest, ARegularFileIsBusyAndLeftAlone) {
  std::ofstream(_path) << "precious";
  StandardOutputCapture output;
  SystemCalls calls;
  EXPECT_EQ(passive_unix(_path), -1);
  EXPECT_EQ(output.text(), busyLine(_path));
  EXPECT_EQ(calls.count("connect"), 0U);
  EXPECT_EQ(calls.count("unlink"), 0U);
  EXPECT_EQ(std::filesystem::file_size(_path), 8U);
}

TEST_F(ZPIUnixSocketFunctionsTest, ALinkToASocketIsNotFollowed) {
  leaveStaleFile(_folder.pathOf("other"));
  std::filesystem::create_symlink(_folder.pathOf("other"), _path);
  StandardOutputCapture output;
  EXPECT_EQ(passive_unix(_path), -1);
  EXPECT_EQ(output.text(), busyLine(_path));
  EXPECT_TRUE(std::filesystem::is_symlink(_path));
  EXPECT_TRUE(isSocketFile(_folder.pathOf("other")));
}

TEST_F(ZPIUnixSocketFunctionsTest, AMissingFolderIsRestricted) {
  const std::string path = _folder.pathOf("missing/socket");
  StandardOutputCapture output;
  EXPECT_EQ(passive_unix(path), -1);
  EXPECT_EQ(output.text(), restrictedLine(path, ENOENT));
}

TEST_F(ZPIUnixSocketFunctionsTest, AFolderThatMayNotBeWrittenIsRestricted) {
  ::chmod(_folder.path().c_str(), 0555);
  const ChildResult result = runAsOrdinaryUser([this](std::string* message) {
    StandardOutputCapture output;
    const int status = passive_unix(_path) == -1 ? 0 : 1;
    *message = output.text();
    return status;
  });
  ::chmod(_folder.path().c_str(), 0777);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.message, restrictedLine(_path, EACCES));
}

TEST_F(ZPIUnixSocketFunctionsTest, AStaleFileThatCannotBeRemovedStaysBusy) {
  leaveStaleFile(_path);
  StandardOutputCapture output;
  SystemCalls calls;
  calls.fail("unlink", EPERM);
  EXPECT_EQ(passive_unix(_path), -1);
  EXPECT_EQ(calls.count("bind"), 2U);
  EXPECT_EQ(output.text(), busyLine(_path));
}

TEST_F(ZPIUnixSocketFunctionsTest, TheErrnoOfTheSecondAttemptIsPrinted) {
  leaveStaleFile(_path);
  StandardOutputCapture output;
  SystemCalls calls;
  calls.fail("bind", EROFS, 1);
  EXPECT_EQ(passive_unix(_path), -1);
  EXPECT_EQ(output.text(), restrictedLine(_path, EROFS));
}

TEST_F(ZPIUnixSocketFunctionsTest, AFailureWhoseErrnoBecameBusyPrintsNothing) {
  StandardOutputCapture output;
  SystemCalls calls;
  calls.fail("bind", EACCES);
  calls.fail("lstat", EADDRINUSE);
  EXPECT_EQ(passive_unix(_path), -1);
  EXPECT_EQ(output.text(), "");
}

TEST_F(ZPIUnixSocketFunctionsTest, ALongPathIsTruncatedToThePlatformsSize) {
  std::string path = _folder.pathOf("");
  path.append(kLongestPath - path.size(), 'x');
  for (const std::string& longer : {path, path + "y", path + "yyyyyyyyyyyyyyyy"}) {
    const int listener = passive_unix(longer);
    ASSERT_GE(listener, 0);
    EXPECT_TRUE(isSocketFile(path));
    EXPECT_GE(kept(active_unix(path)), 0);
    EXPECT_GE(kept(active_unix(path + "zz")), 0);
    ::close(listener);
    ::unlink(path.c_str());
  }
}

TEST_F(ZPIUnixSocketFunctionsTest, AnEmptyPathNamesNothing) {
  StandardOutputCapture output;
  EXPECT_EQ(active_unix(""), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(passive_unix(""), -1);
  EXPECT_EQ(output.text(), restrictedLine("", ENOENT));
}

}  // namespace
