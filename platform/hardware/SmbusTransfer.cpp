#include "platform/hardware/SmbusTransfer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <vector>

namespace Hardware {

namespace {

/// An SMBus operation as the messages that carry it: one, or a write and a read.
class Operation {
public:
   Operation(std::uint8_t address, std::uint8_t command) {
      _messages[0].address = address;
      _messages[0].bytes = {command};
      _messages[1].address = address;
      _messages[1].isRead = true;
   }

   std::vector<std::uint8_t>& sent() { return _messages[0].bytes; }
   const I2cMessage& received() const { return _messages[_count - 1]; }
   void sendByte(unsigned byte) { sent().push_back(static_cast<std::uint8_t>(byte)); }
   void sendWord(unsigned word) {
      sendByte(word & 0xff);
      sendByte(word >> 8);
   }
   template <typename Iterator>
   void send(Iterator begin, std::size_t count) {
      // One by one: optimising, GCC 12 takes a range of one for one that overruns.
      for (std::size_t i = 0; i < count; ++i) {
         sent().push_back(*begin++);
      }
   }

   /// A read of `count` bytes follows what is sent.
   void receive(std::size_t count) {
      _messages[1].bytes.resize(count);
      _count = 2;
   }
   void receiveBlock() {
      receive(1);
      _messages[1].receivesLength = true;
   }
   /// Nothing is sent; a read of `count` bytes is all.
   void onlyReceive(std::size_t count) {
      _messages[0].isRead = true;
      _messages[0].bytes.assign(count, 0);
   }

   int run(SimulatedI2cBus& bus) { return bus.transfer(std::span(_messages).first(_count)); }

private:
   std::array<I2cMessage, 2> _messages;
   std::size_t _count = 1;
};

bool isKnown(std::uint32_t size) {
   switch (size) {
   case I2C_SMBUS_QUICK:
   case I2C_SMBUS_BYTE:
   case I2C_SMBUS_BYTE_DATA:
   case I2C_SMBUS_WORD_DATA:
   case I2C_SMBUS_PROC_CALL:
   case I2C_SMBUS_BLOCK_DATA:
   case I2C_SMBUS_I2C_BLOCK_BROKEN:
   case I2C_SMBUS_BLOCK_PROC_CALL:
   case I2C_SMBUS_I2C_BLOCK_DATA:
      return true;
   default:
      return false;
   }
}

unsigned wordOf(const I2cMessage& message) {
   return message.bytes[0] | static_cast<unsigned>(message.bytes[1]) << 8;
}

void takeBlock(const I2cMessage& message, i2c_smbus_data& data) {
   std::copy_n(message.bytes.begin(), std::size_t{message.bytes[0]} + 1, std::begin(data.block));
}

} // namespace

int smbusTransfer(SimulatedI2cBus& bus, std::uint8_t address, std::uint8_t readWrite,
                  std::uint8_t command, std::uint32_t size, i2c_smbus_data* data) {
   if (!isKnown(size) || (readWrite != I2C_SMBUS_READ && readWrite != I2C_SMBUS_WRITE)) {
      return EINVAL;
   }
   const bool isRead = readWrite == I2C_SMBUS_READ;
   Operation operation(address, command);
   if (size == I2C_SMBUS_QUICK) {
      // The direction bit is all the data there is.
      operation.sent().clear();
      if (isRead) {
         operation.onlyReceive(0);
      }
      return operation.run(bus);
   }
   if (size == I2C_SMBUS_BYTE && !isRead) {
      return operation.run(bus);
   }
   if (!data) {
      return EINVAL;
   }
   if (size == I2C_SMBUS_I2C_BLOCK_BROKEN) {
      // The old form of the operation: its reads are always of full length.
      size = I2C_SMBUS_I2C_BLOCK_DATA;
      if (isRead) {
         data->block[0] = I2C_SMBUS_BLOCK_MAX;
      }
   }
   const std::size_t length = data->block[0];
   const bool sendsBlock = size == I2C_SMBUS_I2C_BLOCK_DATA || size == I2C_SMBUS_BLOCK_PROC_CALL ||
                           (size == I2C_SMBUS_BLOCK_DATA && !isRead);
   if (sendsBlock && length > I2C_SMBUS_BLOCK_MAX) {
      return EINVAL;
   }
   switch (size) {
   case I2C_SMBUS_BYTE:
      operation.onlyReceive(1);
      break;
   case I2C_SMBUS_BYTE_DATA:
      isRead ? operation.receive(1) : operation.sendByte(data->byte);
      break;
   case I2C_SMBUS_WORD_DATA:
      isRead ? operation.receive(2) : operation.sendWord(data->word);
      break;
   case I2C_SMBUS_PROC_CALL:
      operation.sendWord(data->word);
      operation.receive(2);
      break;
   case I2C_SMBUS_BLOCK_DATA:
      isRead ? operation.receiveBlock() : operation.send(std::begin(data->block), length + 1);
      break;
   case I2C_SMBUS_BLOCK_PROC_CALL:
      operation.send(std::begin(data->block), length + 1);
      operation.receiveBlock();
      break;
   default: // I2C_SMBUS_I2C_BLOCK_DATA
      isRead ? operation.receive(length) : operation.send(std::begin(data->block) + 1, length);
      break;
   }
   if (const int error = operation.run(bus); error != 0) {
      return error;
   }
   const I2cMessage& received = operation.received();
   if (!received.isRead) {
      return 0;
   }
   switch (size) {
   case I2C_SMBUS_BYTE:
   case I2C_SMBUS_BYTE_DATA:
      data->byte = received.bytes[0];
      break;
   case I2C_SMBUS_WORD_DATA:
   case I2C_SMBUS_PROC_CALL:
      data->word = static_cast<__u16>(wordOf(received));
      break;
   case I2C_SMBUS_BLOCK_DATA:
   case I2C_SMBUS_BLOCK_PROC_CALL:
      takeBlock(received, *data);
      break;
   default:
      data->block[0] = static_cast<__u8>(received.received);
      std::copy(received.bytes.begin(), received.bytes.end(), std::begin(data->block) + 1);
      break;
   }
   return 0;
}

} // namespace Hardware
