#include <gtest/gtest.h>

#include "Utility/ZPKError.h"
#include "ZephalLogging.h"

namespace {

ZPKErrorPtr exampleError() {
  return ZPKError::init("zephalbench.zephal-communication", 2,
                        {{"Description", "Device Already Closed"},
                         {"ErrorLocation", "[Zephal-1.2.3.4] a.cpp:f:1"},
                         {"Other", "kept"}});
}

TEST(ZPKErrorTest, ItReturnsWhatItWasCreatedWith) {
  const ZPKErrorPtr error = exampleError();
  EXPECT_EQ(error->domain(), "zephalbench.zephal-communication");
  EXPECT_EQ(error->code(), 2);
  EXPECT_EQ(error->userInfo().size(), 3U);
  EXPECT_EQ(error->userInfo().at("Other"), "kept");
}

TEST(ZPKErrorTest, DescriptionAndLocationComeFromTheUserInformation) {
  const ZPKErrorPtr error = exampleError();
  EXPECT_EQ(error->description(), "Device Already Closed");
  EXPECT_EQ(error->location(), "[Zephal-1.2.3.4] a.cpp:f:1");
  EXPECT_EQ(error->userInfo().at(std::string(ZPKErrorDescriptionKey)), error->description());
  EXPECT_EQ(error->userInfo().at(std::string(ZPKErrorLocationKey)), error->location());
}

TEST(ZPKErrorTest, WithoutUserInformationTheTextsAreEmpty) {
  const ZPKErrorPtr error = ZPKError::init("", -1, {});
  EXPECT_EQ(error->description(), "");
  EXPECT_EQ(error->location(), "");
  EXPECT_EQ(error->domain(), "");
  EXPECT_EQ(error->code(), -1);
}

TEST(ZPKErrorTest, ALogShowsDomainCodeAndDescriptionInOneLine) {
  EXPECT_EQ(exampleError()->debugDescription(),
            "zephalbench.zephal-communication (2): Device Already Closed");
  EXPECT_EQ(ZPKLoggingFormat("%@", exampleError()), exampleError()->debugDescription());
  EXPECT_EQ(ZPKLoggingFormat("%@", ZPKErrorPtr()), "(null)");
}

}  // namespace
