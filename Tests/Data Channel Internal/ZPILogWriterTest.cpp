#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include "Data Channel Internal/ZPILogWriter.h"
#include "Support/HeldLogWrite.h"
#include "Support/LogFile.h"
#include "Support/OpenDescriptors.h"
#include "Support/TemporaryFolder.h"
#include "Support/ThreadCalls.h"

using namespace support;

namespace {

class ZPILogWriterTest : public testing::Test {
 protected:
  void SetUp() override { _writer->setOwner(_owner); }

  void open() { ASSERT_TRUE(_writer->openFile({"open"}, nullptr)); }
  void openWithoutThread() {
    const RefusedThreads refused;
    open();
  }
  std::string contents() const { return contentsOfFile(_path); }

  const TemporaryFolder _folder;
  const std::string _path = _folder.pathOf("log");
  std::shared_ptr<int> _owner = std::make_shared<int>();
  std::unique_ptr<ZPILogWriter> _writer = std::make_unique<ZPILogWriter>(_path);
};

TEST_F(ZPILogWriterTest, ANewWriterIsClosedAndNotSynchronous) {
  EXPECT_EQ(_writer->fileHandle(), nullptr);
  EXPECT_FALSE(_writer->isSynchronous());
  EXPECT_EQ(_writer->process(), ::getpid());
  EXPECT_EQ(_writer->parents(), nullptr);
  EXPECT_FALSE(std::filesystem::exists(_path));
}

TEST_F(ZPILogWriterTest, ClosingHasAllChunksInTheFileInTheirOrder) {
  open();
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    _writer->addChunk("\n" + std::to_string(i));
    expected += "\n" + std::to_string(i);
  }
  _writer->closeFile();
  EXPECT_EQ(contents(), expected);
  EXPECT_EQ(_writer->fileHandle(), nullptr);
}

TEST_F(ZPILogWriterTest, ChunksBeforeOpenAndAfterCloseAreDropped) {
  _writer->addChunk("before");
  open();
  _writer->addChunk("while");
  _writer->closeFile();
  _writer->addChunk("after");
  open();
  _writer->closeFile();
  EXPECT_EQ(contents(), "while");
}

TEST_F(ZPILogWriterTest, AnErrorOfTheSystemIsAtTheCallersSite) {
  std::filesystem::create_directory(_path);
  ZPKErrorPtr error;
  EXPECT_FALSE(_writer->openFile({"theCaller"}, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), EISDIR);
  EXPECT_THAT(error->location(), testing::HasSubstr("ZPILogWriterTest.cpp:theCaller:"));
}

TEST_F(ZPILogWriterTest, WithoutItsOwnerOnlyTheDestructorWrites) {
  openWithoutThread();
  _writer->addChunk("one ");
  EXPECT_EQ(contents(), "one ");
  _owner.reset();
  _writer->addChunk("two ");
  _writer->addChunk("three");
  EXPECT_EQ(contents(), "one ");
  _writer.reset();
  EXPECT_EQ(contents(), "one two three");
}

TEST_F(ZPILogWriterTest, ATaskHoldsTheOwnerWhileItWrites) {
  open();
  HeldLogWrite held;
  _writer->addChunk("chunk");
  EXPECT_TRUE(held.waitUntilHeld());
  EXPECT_EQ(_owner.use_count(), 2);
  held.release();
  _writer->closeFile();
  EXPECT_EQ(_owner.use_count(), 1);
}

// --- The writer of a child, made by hand in the same process.

TEST_F(ZPILogWriterTest, AChildsWriterHasFileModeAndOwnerOfItsParents) {
  const RefusedThreads refused;
  open();
  _writer->setSynchronous(true);
  ZPILogWriter child(_writer.get());
  EXPECT_EQ(child.parents(), _writer.get());
  EXPECT_EQ(child.fileHandle(), _writer->fileHandle());
  EXPECT_TRUE(child.isSynchronous());
  child.setSynchronous(false);
  child.addChunk("child");  // by a task, which needs the owner
  EXPECT_EQ(contents(), "child");
}

TEST_F(ZPILogWriterTest, WhatTheParentHasPendingIsNotTheChilds) {
  open();
  HeldLogWrite held;
  _writer->addChunk("first ");
  EXPECT_TRUE(held.waitUntilHeld());
  _writer->addChunk("second");
  {
    ZPILogWriter child(_writer.get());
    child.addChunk("child ");
  }
  EXPECT_EQ(contents(), "child ");
  held.release();
  _writer->closeFile();
  EXPECT_EQ(contents(), "child first second");
}

TEST_F(ZPILogWriterTest, AnAbandonedWriterHoldsNeitherFileNorOwner) {
  const std::set<int> before = openDescriptors();
  openWithoutThread();
  const std::weak_ptr<int> owner = _owner;
  _writer->abandon();
  EXPECT_EQ(openDescriptors(), before);
  _owner.reset();
  EXPECT_TRUE(owner.expired());
  _writer->addChunk("lost");
  _writer.reset();
  EXPECT_EQ(contents(), "");
}

}  // namespace
