#include "TarnRegFile/ImplFactoryMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>

#include "TarnRegFile/I2cTransportDescriptor.h"
#include "TarnRegFile/MockTransportMethodImpl.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/Failure.h"
#include "tests/support/TempDir.h"

namespace {

using TarnRegFile::implFactoryMap;
using TarnRegFile::TransportFlavour;
using TarnRegFile::TransportKey;
using TarnRegFile::TransportProtocol;
using TarnRegFile::TransportType;

const TransportKey mockKey{TransportType::mockBus, TransportProtocol::mockAccess,
                           TransportFlavour::mockDefault};

TransportKey key(int type, int protocol, int flavour) {
   return {static_cast<TransportType>(type), static_cast<TransportProtocol>(protocol),
           static_cast<TransportFlavour>(flavour)};
}

// Looked at before main(), as a program's own static objects may.
const bool thereBeforeMain = implFactoryMap.contains(mockKey);

TEST(ImplFactoryMap, IsBuiltWhenTheLibraryIsLoaded) {
   EXPECT_TRUE(thereBeforeMain);
}

TEST(ImplFactoryMap, OnlyTheTriplesThatExistAreSupported) {
   const std::set<std::array<int, 3>> supported{{2, 0, 0}, {0, 1, 1}, {0, 2, 2}, {0, 2, 3},
                                                {0, 3, 4}, {0, 3, 5}, {3, 4, 6}, {4, 5, 7}};
   for (int type = 0; type < 8; ++type) {
      for (int protocol = 0; protocol < 8; ++protocol) {
         for (int flavour = 0; flavour < 10; ++flavour) {
            EXPECT_EQ(implFactoryMap.contains(key(type, protocol, flavour)),
                      supported.contains({type, protocol, flavour}))
               << type << ' ' << protocol << ' ' << flavour;
         }
      }
   }
   EXPECT_EQ(implFactoryMap.size(), supported.size());
}

TEST(ImplFactoryMap, TheMocksRowMakesAMockFromAPathOrAModel) {
   const TestSupport::EnvironmentVariable noValues("REG_VALUES_FILE", std::nullopt);
   const TestSupport::TempDir dir;
   const auto descriptor = TarnRegFile::mockTransportDescriptorFactory();
   const std::string path =
      dir.write("a.csv", "number,name,type,writeable,width\n3,A,led,true,8\n");
   const std::unique_ptr<TarnRegFile::BaseTransportMethodImpl> fromPath(
      implFactoryMap.at(mockKey)(descriptor, path, nullptr));
   EXPECT_NE(dynamic_cast<TarnRegFile::MockTransportMethodImpl*>(fromPath.get()), nullptr);
   EXPECT_EQ(fromPath->regFileHelper()->findRegisterByName("A").address, 12u);
   EXPECT_EQ(fromPath->regFileHelper()->name(), path);

   const auto model = Hardware::hardwareRegisterFileFactory("m");
   const std::unique_ptr<TarnRegFile::BaseTransportMethodImpl> fromModel(
      implFactoryMap.at(mockKey)(descriptor, "", model));
   EXPECT_NE(dynamic_cast<TarnRegFile::MockTransportMethodImpl*>(fromModel.get()), nullptr);
   EXPECT_EQ(descriptor->refCount(), 1u) << "the mock keeps nothing of the descriptor";
}

TEST(ImplFactoryMap, TheMockTakesADescriptorOfAnyKind) {
   const auto model = Hardware::hardwareRegisterFileFactory("m");
   const auto& factory = implFactoryMap.at(mockKey);
   const auto i2c =
      TarnRegFile::i2cTransportDescriptorFactory("d", 1, TarnRegFile::I2cFlavour::dataBlock);
   for (const TarnRegFile::Ptr<TarnRegFile::BaseTransportDescriptor>& descriptor :
        {TarnRegFile::Ptr<TarnRegFile::BaseTransportDescriptor>(i2c),
         TarnRegFile::Ptr<TarnRegFile::BaseTransportDescriptor>()}) {
      const std::unique_ptr<TarnRegFile::BaseTransportMethodImpl> made(
         factory(descriptor, "", model));
      EXPECT_NE(dynamic_cast<TarnRegFile::MockTransportMethodImpl*>(made.get()), nullptr);
   }
}

TEST(ImplFactoryMap, AFailingConstructorPassesThroughTheFactory) {
   EXPECT_EQ(TestSupport::Failure([] {
                implFactoryMap.at(mockKey)(TarnRegFile::mockTransportDescriptorFactory(), "",
                                           nullptr);
             }),
             TestSupport::Failure::generic(EINVAL, "Must provide csvPath or regFileModel"));
}

TEST(ImplFactoryMap, TheAsynchronousProtocolsAreSornAlone) {
   ASSERT_EQ(TarnRegFile::asyncProtocols.size(), 1u);
   EXPECT_EQ(TarnRegFile::asyncProtocols[0], TransportProtocol::sornAsync);
}

} // namespace
