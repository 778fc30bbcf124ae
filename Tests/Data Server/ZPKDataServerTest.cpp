#include <gtest/gtest.h>

#include "Data Server/ZPKDataServer.h"
#include "Support/ErrorExpectations.h"

using namespace support;

namespace {

// A caller's own server.
class CountingServer final : public ZPKDataServer {
 public:
  explicit CountingServer(bool* isDestroyed = nullptr) : _isDestroyed(isDestroyed) {}
  ~CountingServer() override {
    if (_isDestroyed != nullptr) *_isDestroyed = true;
  }

  bool stop(ZPKErrorPtr* error = nullptr) override {
    if (++_stops == 1) return true;
    if (error != nullptr) *error = ZPKError::init("example", _stops, {});
    return false;
  }

 private:
  int _stops = 0;
  bool* const _isDestroyed;
};

TEST(ZPKDataServerTest, AServerIsStoppedThroughTheContract) {
  const ZPKDataServerPtr server = std::make_shared<CountingServer>();
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(server->stop(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(server->stop(&error));
  EXPECT_EQ(error->code(), 2);
}

TEST(ZPKDataServerTest, TheSlotMayBeLeftOut) {
  const ZPKDataServerPtr server = std::make_shared<CountingServer>();
  EXPECT_TRUE(server->stop());
  EXPECT_FALSE(server->stop());
}

TEST(ZPKDataServerTest, AServerIsDestroyedThroughTheContract) {
  bool isDestroyed = false;
  std::unique_ptr<ZPKDataServer> server = std::make_unique<CountingServer>(&isDestroyed);
  server.reset();
  EXPECT_TRUE(isDestroyed);
}

}  // namespace
