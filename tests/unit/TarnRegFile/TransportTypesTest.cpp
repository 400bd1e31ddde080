#include "TarnRegFile/TransportTypes.h"

#include <gtest/gtest.h>

#include "platform/entity/Errors.h"

namespace {

using Platform::enumInstance;
using Platform::enumString;
using TarnRegFile::TransportFlavour;
using TarnRegFile::TransportProtocol;
using TarnRegFile::TransportType;

template <typename E>
void expectEntry(E value, std::uint32_t number, const char* name) {
   static_assert(sizeof(E) == 1);
   EXPECT_EQ(static_cast<std::uint32_t>(value), number);
   EXPECT_EQ(enumString(value), name);
   EXPECT_EQ(enumInstance<E>(std::string_view(name)), value);
   EXPECT_EQ(enumInstance<E>(number), value);
}

TEST(TransportTypes, TypesHaveTheirNumbersAndNames) {
   expectEntry(TransportType::i2cBus, 0, "i2cBus");
   expectEntry(TransportType::pciBus, 2, "pciBus");
   expectEntry(TransportType::spiBus, 3, "spiBus");
   expectEntry(TransportType::mockBus, 4, "mockBus");
   EXPECT_THROW(enumInstance<TransportType>(1), Platform::RangeError) << "1 is not used";
   EXPECT_THROW(enumInstance<TransportType>(5), Platform::RangeError);
}

TEST(TransportTypes, ProtocolsHaveTheirNumbersAndNames) {
   expectEntry(TransportProtocol::pciMmio, 0, "pciMmio");
   expectEntry(TransportProtocol::sornAsync, 1, "sornAsync");
   expectEntry(TransportProtocol::i2cDev, 2, "i2cDev");
   expectEntry(TransportProtocol::nimboSmbus, 3, "nimboSmbus");
   expectEntry(TransportProtocol::spiAccess, 4, "spiAccess");
   expectEntry(TransportProtocol::mockAccess, 5, "mockAccess");
   EXPECT_THROW(enumInstance<TransportProtocol>(6), Platform::RangeError);
}

TEST(TransportTypes, FlavoursHaveTheirNumbersAndNames) {
   expectEntry(TransportFlavour::pciDefault, 0, "pciDefault");
   expectEntry(TransportFlavour::sornDefault, 1, "sornDefault");
   expectEntry(TransportFlavour::i2cDevFlavour1, 2, "i2cDevFlavour1");
   expectEntry(TransportFlavour::i2cDevFlavour2, 3, "i2cDevFlavour2");
   expectEntry(TransportFlavour::nimboSmbusFlavour1, 4, "nimboSmbusFlavour1");
   expectEntry(TransportFlavour::nimboSmbusFlavour2, 5, "nimboSmbusFlavour2");
   expectEntry(TransportFlavour::spiDefault, 6, "spiDefault");
   expectEntry(TransportFlavour::mockDefault, 7, "mockDefault");
   EXPECT_THROW(enumInstance<TransportFlavour>(8), Platform::RangeError);
}

} // namespace
