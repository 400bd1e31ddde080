#include "platform/hardware/SimulatedI2cBus.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <linux/i2c.h>

#include "platform/entity/Errors.h"

namespace Hardware {

namespace {

std::string_view mark(int error) {
   switch (error) {
   case ENXIO:
      return " NAK";
   case ETIMEDOUT:
      return " TIMEOUT";
   case EPROTO:
      return " EPROTO";
   default:
      return " EIO";
   }
}

void appendBytes(std::string& line, std::span<const std::uint8_t> bytes) {
   for (const std::uint8_t byte : bytes) {
      fmt::format_to(std::back_inserter(line), " {:02x}", byte);
   }
}

bool readsFrom(std::span<const I2cMessage> messages, std::uint8_t address) {
   return std::any_of(messages.begin(), messages.end(), [&](const I2cMessage& message) {
      return message.isRead && message.address == address;
   });
}

/// Does one message with a device that answered. Returns 0 or an errno.
int exchange(SimulatedI2cDevice& device, const FaultPlan::Outcome& outcome, I2cMessage& message) {
   if (!message.isRead) {
      device.write(message.bytes);
      return 0;
   }
   if (message.receivesLength) {
      const std::size_t behind = message.bytes.empty() ? 0 : message.bytes.size() - 1;
      std::vector<std::uint8_t> bytes = device.readCounted(outcome.length, outcome.xorMask);
      const std::size_t count = bytes[0];
      message.received = bytes.size();
      message.bytes = std::move(bytes);
      if (count == 0 || count > I2C_SMBUS_BLOCK_MAX) {
         return EPROTO;
      }
      message.bytes.resize(message.bytes.size() + behind, 0xff);
      return 0;
   }
   message.received = std::min(outcome.length.value_or(message.bytes.size()), message.bytes.size());
   const std::span<std::uint8_t> bytes(message.bytes);
   device.read(bytes.first(message.received), outcome.xorMask);
   std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(message.received), bytes.end(),
             std::uint8_t{0xff});
   return 0;
}

} // namespace

SimulatedI2cBus::SimulatedI2cBus() = default;
SimulatedI2cBus::~SimulatedI2cBus() = default;

void SimulatedI2cBus::deviceIs(std::uint8_t address, std::shared_ptr<SimulatedI2cDevice> device) {
   if (address >= addresses) {
      throw Platform::RangeError(fmt::format("{:#x} is no 7-bit I2C address", address));
   }
   const std::lock_guard lock(_devicesMutex);
   _devices[address] = std::move(device);
}

std::shared_ptr<SimulatedI2cDevice> SimulatedI2cBus::device(std::uint8_t address) const {
   const std::lock_guard lock(_devicesMutex);
   return address < addresses ? _devices[address] : nullptr;
}

void SimulatedI2cBus::wireLogIs(WireLog log) {
   const std::lock_guard lock(_transferMutex);
   _log = std::move(log);
}

int SimulatedI2cBus::transfer(std::span<I2cMessage> messages) {
   struct Partner {
      std::shared_ptr<SimulatedI2cDevice> device;
      FaultPlan::Outcome outcome;
      std::uint8_t address = 0;
   };
   // Nearly always one: a linear search is best.
   std::vector<Partner> partners;
   const std::lock_guard lock(_transferMutex);
   std::string line;
   int error = 0;
   for (std::size_t i = 0; i < messages.size() && error == 0; ++i) {
      I2cMessage& message = messages[i];
      message.received = 0;
      auto partner = std::find_if(partners.begin(), partners.end(), [&](const Partner& one) {
         return one.address == message.address;
      });
      if (partner == partners.end()) {
         // A device decides once a transaction, so that what counts accesses counts those that a
         // program makes, not the messages that they consist of.
         Partner added{device(message.address), {}, message.address};
         if (added.device) {
            const bool isRead = readsFrom(messages, message.address);
            added.outcome = added.device->faults().access(isRead);
            if (added.outcome.delay.count() > 0) {
               std::this_thread::sleep_for(added.outcome.delay);
            }
            if (added.outcome.error != 0) {
               added.device->failed(isRead, added.outcome.error);
            }
         } else {
            added.outcome.error = ENXIO;
         }
         partner = partners.insert(partners.end(), std::move(added));
      }
      if (_log) {
         fmt::format_to(std::back_inserter(line), "{} {:02x} {}", i == 0 ? "S" : " | Sr",
                        message.address, message.isRead ? 'R' : 'W');
      }
      error = partner->outcome.error;
      if (error == 0) {
         error = exchange(*partner->device, partner->outcome, message);
         if (_log) {
            const std::span<const std::uint8_t> bytes(message.bytes);
            appendBytes(line, message.isRead ? bytes.first(message.received) : bytes);
         }
      }
      if (error != 0 && _log) {
         line += mark(error);
      }
   }
   if (_log && !messages.empty()) {
      line += " P";
      _log(line);
   }
   return error;
}

} // namespace Hardware
