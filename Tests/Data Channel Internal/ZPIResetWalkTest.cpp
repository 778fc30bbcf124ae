#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Channel Internal/ZPIResetWalk.h"
#include "Support/ErrorExpectations.h"
#include "Support/Errors.h"
#include "Support/ScriptedChannel.h"
#include "Support/ScriptedTransformer.h"

using namespace support;

namespace {

class ZPIResetWalkTest : public testing::Test {
 protected:
  // Resets the three members in order and returns the result of finish.
  bool resetAll(ZPKErrorPtr* error) {
    ZPIResetWalk walk;
    walk.reset(*first);
    walk.reset(*second);
    walk.reset(*channel);
    return walk.finish(error);
  }

  const std::shared_ptr<ScriptedTransformer> first = ScriptedTransformer::make();
  const std::shared_ptr<ScriptedTransformer> second = ScriptedTransformer::make();
  const std::shared_ptr<ScriptedChannel> channel = ScriptedChannel::make();
};

TEST_F(ZPIResetWalkTest, WhenAllSucceedTheSlotIsUntouched) {
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(resetAll(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(first->resets(), 1);
  EXPECT_EQ(second->resets(), 1);
  EXPECT_THAT(channel->calls(), testing::ElementsAre("reset"));
}

TEST_F(ZPIResetWalkTest, AFailureDoesNotStopTheWalkAndIsReported) {
  first->setResetResult(false, errorWithCode(1));
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(resetAll(&error));
  EXPECT_EQ(error->code(), 1);
  EXPECT_EQ(second->resets(), 1);
  EXPECT_THAT(channel->calls(), testing::ElementsAre("reset"));
}

TEST_F(ZPIResetWalkTest, TheFirstOfSeveralFailuresIsReported) {
  second->setResetResult(false, errorWithCode(2));
  channel->setResetResult(false, errorWithCode(3));
  ZPKErrorPtr error;
  EXPECT_FALSE(resetAll(&error));
  EXPECT_EQ(error->code(), 2);
}

TEST_F(ZPIResetWalkTest, AFirstFailureWithoutErrorLeavesNull) {
  first->setResetResult(false, nullptr);
  channel->setResetResult(false, errorWithCode(3));
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(resetAll(&error));
  EXPECT_EQ(error, nullptr);
}

TEST_F(ZPIResetWalkTest, AMissingMemberIsAFailureWithoutAnError) {
  channel->setResetResult(false, errorWithCode(3));
  ZPIResetWalk walk;
  walk.resetNothing();
  walk.reset(*channel);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(walk.finish(&error));
  EXPECT_EQ(error, nullptr);
  EXPECT_THAT(channel->calls(), testing::ElementsAre("reset"));
}

TEST_F(ZPIResetWalkTest, AMissingMemberLeavesAnEarlierError) {
  channel->setResetResult(false, errorWithCode(3));
  ZPIResetWalk walk;
  walk.reset(*channel);
  walk.resetNothing();
  ZPKErrorPtr error;
  EXPECT_FALSE(walk.finish(&error));
  EXPECT_EQ(error->code(), 3);
}

TEST_F(ZPIResetWalkTest, ANullSlotIsLegal) {
  channel->setResetResult(false, errorWithCode(3));
  EXPECT_FALSE(resetAll(nullptr));
}

// A member that succeeds but fills its slot must not be mistaken for the one that failed.
TEST_F(ZPIResetWalkTest, EachMemberGetsASlotOfItsOwn) {
  class Chatty final : public ZPKDataTransformer {
   public:
    void modifyData(ZPKMutableData* /*data*/) override {}
    bool reset(ZPKErrorPtr* error) override {
      EXPECT_NE(error, nullptr);
      EXPECT_EQ(*error, nullptr);
      *error = olderError();
      return true;
    }
  };
  Chatty chatty;
  first->setResetResult(false, nullptr);
  ZPIResetWalk walk;
  walk.reset(chatty);
  walk.reset(*first);
  walk.reset(chatty);
  ZPKErrorPtr error = errorWithCode(9);
  EXPECT_FALSE(walk.finish(&error));
  EXPECT_EQ(error, nullptr);
}

}  // namespace
