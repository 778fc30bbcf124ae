#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "Support/OpenDescriptors.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryFolder.h"
#include "Utility/ZPISocket.h"
#include "Utility/ZPIUnixSocketFunctions.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(ZPISocketTest, AStartedProgramInheritsOnlyTheUsersSocket) {
  const int ofUser = ZPIMakeSocket(AF_UNIX, ZPISocketOwner::kUser);
  const int ofLibrary = ZPIMakeSocket(AF_UNIX, ZPISocketOwner::kLibrary);
  EXPECT_THAT(inheritedOf({ofUser, ofLibrary}), ElementsAre(ofUser));
  ::close(ofUser);
  ::close(ofLibrary);
}

TEST(ZPISocketTest, ASocketIsClosedOnExecFromTheStart) {
  const SystemCalls calls;
  ::close(ZPIMakeSocket(AF_INET, ZPISocketOwner::kLibrary));
  EXPECT_THAT(calls.texts(), ElementsAre("socket AF_INET SOCK_CLOEXEC", "close"));
}

TEST(ZPISocketTest, AStartedProgramInheritsNoAcceptedConnection) {
  const TemporaryFolder folder;
  const int listener = passive_unix(folder.pathOf("socket"));
  const int client = active_unix(folder.pathOf("socket"));
  const SystemCalls calls;
  const int connection = ZPIAccept(listener);
  EXPECT_THAT(calls.texts(), ElementsAre("accept4"));
  ASSERT_GE(connection, 0);
  EXPECT_THAT(inheritedOf({connection}), IsEmpty());
  for (const int descriptor : {listener, client, connection}) ::close(descriptor);
}

TEST(ZPISocketTest, AFailedAcceptReportsTheReason) {
  EXPECT_EQ(ZPIAccept(-1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(ZPISocketTest, ClosesSocketsOfOthersOnExec) {
  const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_THAT(inheritedOf({socket}), ElementsAre(socket));
  ZPICloseOnExec(socket);
  EXPECT_THAT(inheritedOf({socket}), IsEmpty());
  ::close(socket);
}

TEST(ZPISocketTest, LeavesTheStandardDescriptorsAlone) {
  const SystemCalls calls;
  for (const int descriptor : {-1, STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    ZPICloseOnExec(descriptor);
  }
  EXPECT_THAT(calls.all(), IsEmpty());
}

}  // namespace
