#include "platform/hardware/SpiEngine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

#include "tests/support/Failure.h"

namespace {

using Hardware::HwAccess;
using Hardware::SimulatedSpiDevice;
using Hardware::SpiBackend;
using Hardware::SpiEngine;
using Hardware::SpiEngineRequest;
using Hardware::SpiHwAccess;
using Platform::Bytes;
using Platform::make;
using Platform::Ptr;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::Failure;

Ptr<SpiEngineRequest> request(std::uint32_t id, const Bytes& bytes) {
   auto made = make<SpiEngineRequest>(id);
   for (std::size_t i = 0; i < bytes.size(); ++i) {
      made->cmdDataIs(static_cast<std::uint16_t>(i), {0, bytes[i]});
   }
   return made;
}

class Engine : public testing::Test {
protected:
   Engine() { handle->readyIs(true); }

   /// Runs the request; "errno text" of its outcome.
   std::string execute(const Ptr<SpiEngineRequest>& given) {
      const auto outcome = engine->execute(*given);
      return std::to_string(outcome.error) + " " + outcome.text;
   }

   const Ptr<SimulatedSpiDevice> device = make<SimulatedSpiDevice>("bus 1");
   const Ptr<SpiHwAccess> handle = Hardware::spiHwAccessFactory("cpld", device);
   const Ptr<SpiEngine> engine = make<SpiEngine>(handle);
};

TEST_F(Engine, NeedsTheHandleOfAnSpiDevice) {
   EXPECT_EQ(Failure([] { make<SpiEngine>(nullptr); }),
             Failure::generic(EINVAL, "SPI engine must have a HwAccess"));
   EXPECT_EQ(Failure([] { make<SpiEngine>(make<HwAccess>("fan")); }),
             Failure::generic(EINVAL, "HwAccess 'fan' is not that of an SPI device"));
   EXPECT_EQ(engine->name(), "cpld");
   EXPECT_EQ(engine->hwAccess(), handle);
}

TEST_F(Engine, SendsARequestAsOneMessageInOrderOfIndex) {
   const auto made = make<SpiEngineRequest>(1u);
   made->cmdDataIs(2, {0, 0xcd});
   made->cmdDataIs(0, {0, 0x12});
   made->cmdDataIs(1, {0, 0xab});
   EXPECT_EQ(execute(made), "0 ");
   EXPECT_THAT(device->journal(), ElementsAre(SimulatedSpiDevice::Transfer{{0x12, 0xab, 0xcd}, 0}));
   EXPECT_EQ(device->registerValue(0x12), 0xabcd);
   EXPECT_THAT(made->received(), ElementsAre(0, 0, 0));
}

TEST_F(Engine, ADeviceThatIsNotReadyGetsNothing) {
   handle->readyIs(false);
   EXPECT_EQ(execute(request(7, {1, 2, 3})),
             std::to_string(ENODEV) + " SPI request 7: device 'cpld' is not ready");
   EXPECT_THAT(device->journal(), IsEmpty());
   handle->readyIs(true);
   EXPECT_EQ(execute(request(8, {1, 2, 3})), "0 ");
}

TEST_F(Engine, RefusesWhatIsNoMessage) {
   const std::string refused = std::to_string(EINVAL) + " ";
   EXPECT_EQ(execute(request(7, {})), refused + "SPI request 7: it has no entries");

   const auto withGap = request(8, {1});
   withGap->cmdDataIs(2, {0, 3});
   EXPECT_EQ(execute(withGap), refused + "SPI request 8: entry 1 is missing");

   const auto other = request(9, {1, 2, 3});
   other->cmdDataIs(1, {0x1a, 2});
   EXPECT_EQ(execute(other), refused + "SPI request 9: entry 1 has the unknown command 0x001a");

   EXPECT_THAT(device->journal(), IsEmpty());
   EXPECT_THAT(other->received(), IsEmpty());
}

TEST_F(Engine, SaysWhatTheDeviceSaid) {
   device->failTransferIs(1, ETIMEDOUT);
   const auto made = request(7, {1, 2, 3});
   EXPECT_EQ(execute(made),
             std::to_string(ETIMEDOUT) + " SPI request 7: bus 1: Connection timed out");
   EXPECT_THAT(made->received(), IsEmpty());
}

TEST_F(Engine, ABackendThatThrowsFailsTheRequest) {
   class Throwing : public SpiBackend {
   public:
      const Platform::String& name() const noexcept override { return _name; }
      int transfer(std::span<const std::uint8_t>, std::span<std::uint8_t>) override {
         throw std::runtime_error("no such luck");
      }

   private:
      const Platform::String _name = "custom";
   };
   const auto custom = make<SpiHwAccess>("cpld", make<Throwing>());
   custom->readyIs(true);
   const auto outcome = make<SpiEngine>(custom)->execute(*request(7, {1}));
   EXPECT_EQ(outcome.error, EIO);
   EXPECT_EQ(outcome.text, "SPI request 7: custom: no such luck");
}

TEST_F(Engine, SendsTheLongestRequest) {
   const Bytes bytes(SpiEngineRequest::maxEntries, 0x5a);
   EXPECT_EQ(execute(request(1, bytes)), "0 ");
   EXPECT_EQ(device->journal().back().bytes, bytes);
}

} // namespace
