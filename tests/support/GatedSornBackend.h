#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/hardware/SornBackend.h"

namespace TestSupport {

/// What the worker does to the bus, one line each, and a gate at which it can be held.
class GatedSornBackend : public Hardware::SornBackend {
public:
   struct State {
      std::mutex mutex;
      std::condition_variable changed;
      bool isOpen = true;
      std::size_t lets = std::numeric_limits<std::size_t>::max(); // through the open gate
      std::size_t arrived = 0;
      std::vector<std::string> journal;
      std::map<std::uint16_t, std::uint32_t> registers;
      std::atomic<int> beginError = 0;
      std::atomic<int> transferError = 0;
      std::uint16_t pointer = 0;
      bool isGone = false;

      void gateIs(bool open) {
         const std::scoped_lock lock(mutex);
         isOpen = open;
         changed.notify_all();
      }
      /// Opens the gate for so many more, and no others.
      void letsIn(std::size_t count) {
         const std::scoped_lock lock(mutex);
         isOpen = true;
         lets = count;
         changed.notify_all();
      }
      void awaitArrivals(std::size_t count) {
         std::unique_lock lock(mutex);
         changed.wait(lock, [&] { return arrived >= count; });
      }
      bool arrivesIn(std::chrono::milliseconds time) {
         std::unique_lock lock(mutex);
         return changed.wait_for(lock, time, [&] { return arrived >= 1; });
      }
      void awaitGone() {
         std::unique_lock lock(mutex);
         changed.wait(lock, [&] { return isGone; });
      }
      std::vector<std::string> lines() {
         const std::scoped_lock lock(mutex);
         return journal;
      }
   };

   explicit GatedSornBackend(std::shared_ptr<State> state) : _state(std::move(state)) {}
   ~GatedSornBackend() override {
      const std::scoped_lock lock(_state->mutex);
      _state->isGone = true;
      _state->changed.notify_all();
   }

   int begin() noexcept override {
      std::unique_lock lock(_state->mutex);
      ++_state->arrived;
      _state->changed.notify_all();
      _state->changed.wait(lock, [&] { return _state->isOpen && _state->lets > 0; });
      --_state->lets;
      _state->journal.push_back("begin");
      return _state->beginError;
   }
   void end() noexcept override {
      const std::scoped_lock lock(_state->mutex);
      _state->journal.push_back("end");
   }
   int transfer(std::uint8_t device, std::uint8_t readWrite, std::uint8_t command,
                i2c_smbus_data& data) noexcept override {
      const std::scoped_lock lock(_state->mutex);
      std::string line = readWrite == I2C_SMBUS_READ ? "read" : "write";
      line += " " + std::to_string(device) + " " + std::to_string(command) + ":";
      if (readWrite == I2C_SMBUS_WRITE) {
         for (unsigned i = 0; i < data.block[0]; ++i) {
            line += " " + std::to_string(data.block[1 + i]);
         }
         _state->pointer = static_cast<std::uint16_t>(command << 8 | data.block[1]);
      } else {
         const std::uint32_t value = _state->registers[_state->pointer];
         for (unsigned i = 0; i < 4; ++i) {
            data.block[1 + i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
         }
         line += " " + std::to_string(data.block[0]);
      }
      _state->journal.push_back(line);
      return _state->transferError;
   }

private:
   const std::shared_ptr<State> _state;
};

} // namespace TestSupport
