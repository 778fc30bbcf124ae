#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>

#include "Data Channel Internal/ZPILogWritersByProcess.h"
#include "Support/Files.h"
#include "Support/OpenDescriptors.h"
#include "Support/OrdinaryUser.h"
#include "Support/TemporaryFolder.h"
#include "Support/ThreadCalls.h"

using namespace support;

namespace {

class ZPILogWritersByProcessTest : public testing::Test {
 protected:
  // Without a thread, so that each chunk is in the file at once.
  void open() {
    const RefusedThreads refused;
    _writers->ofThisProcess().setOwner(_owner);
    ASSERT_TRUE(_writers->ofThisProcess().openFile({"open"}, nullptr));
  }

  const TemporaryFolder _folder;
  const std::string _path = _folder.pathOf("log");
  const std::shared_ptr<int> _owner = std::make_shared<int>();
  std::optional<ZPILogWritersByProcess> _writers{std::in_place, _path};
};

TEST_F(ZPILogWritersByProcessTest, AProcessHasOneWriter) {
  ZPILogWriter& writer = _writers->ofThisProcess();
  EXPECT_EQ(writer.process(), ::getpid());
  EXPECT_EQ(writer.parents(), nullptr);
  EXPECT_EQ(&_writers->ofThisProcess(), &writer);
}

TEST_F(ZPILogWritersByProcessTest, AChildHasAWriterOfItsOwn) {
  const ZPILogWriter* const parents = &_writers->ofThisProcess();
  const ChildResult result = runInChild([&](std::string*) {
    const ZPILogWriter& own = _writers->ofThisProcess();
    if (own.process() != ::getpid() || own.parents() != parents) return 1;
    return &_writers->ofThisProcess() == &own ? 0 : 2;
  });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
  EXPECT_EQ(&_writers->ofThisProcess(), parents);
}

TEST_F(ZPILogWritersByProcessTest, AGrandchildWritesToTheSameFile) {
  open();
  const ChildResult result = runInChild([this](std::string*) {
    _writers->ofThisProcess().addChunk({"child "}, "");
    const ChildResult ofGrandchild = runInChild([this](std::string*) {
      _writers->ofThisProcess().addChunk({"grandchild "}, "");
      const ZPILogWriter* const parents = _writers->ofThisProcess().parents();
      return parents->parents() != nullptr && parents->process() == ::getppid() ? 0 : 1;
    });
    return ofGrandchild.status;
  });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
  _writers->ofThisProcess().addChunk({"parent"}, "");
  EXPECT_EQ(contentsOfFile(_path), "child grandchild parent");
}

TEST_F(ZPILogWritersByProcessTest, DestructionInAChildClosesTheFileOnlyThere) {
  const size_t before = openDescriptors().size();
  open();
  for (const bool isUsed : {false, true}) {
    const ChildResult result = runInChild([&](std::string*) {
      const size_t withFile = openDescriptors().size();
      if (isUsed) _writers->ofThisProcess().addChunk({"child "}, "");
      _writers.reset();
      return openDescriptors().size() == withFile - 1 ? 0 : 1;
    });
    EXPECT_EQ(result.status, 0) << "signal " << result.signal;
  }
  EXPECT_EQ(openDescriptors().size(), before + 1);
  _writers->ofThisProcess().addChunk({"parent"}, "");
  EXPECT_EQ(contentsOfFile(_path), "child parent");
}

}  // namespace
