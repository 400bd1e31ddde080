#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "nimbo/Bus.h"
#include "nimbo/BusBackend.h"

namespace TestSupport {

/// A bus of the SMBus daemon that keeps a journal, fails when told to, and can be made to hang. A
/// read gives bytes that follow from where they are read: valueAt(). Any thread.
class FakeSmbus : public std::enable_shared_from_this<FakeSmbus> {
public:
   /// Does `change` to what follows below, which the bus may be using.
   void with(const std::function<void(FakeSmbus&)>& change) {
      const std::scoped_lock lock(_mutex);
      change(*this);
   }
   std::deque<int> errors;                ///< of the next transfers, one each; 0 lets one pass
   std::optional<std::system_error> busy; ///< begin() throws it
   std::function<void()> onTransfer;      ///< called in every transfer, without a lock

   /// From now on transfers hang until they are let go.
   void hang() {
      const std::scoped_lock lock(_mutex);
      _isHanging = true;
   }
   void letGo() {
      const std::scoped_lock lock(_mutex);
      _isHanging = false;
      _changed.notify_all();
   }
   /// Lets so many transfers go that hang now or will.
   void letGo(std::size_t count) {
      const std::scoped_lock lock(_mutex);
      _passes += count;
      _changed.notify_all();
   }

   /// Waits until so many transfers in all have begun.
   void waitFor(std::size_t transfers) {
      std::unique_lock lock(_mutex);
      _changed.wait(lock, [&] { return _transfers >= transfers; });
   }
   std::size_t transfers() const {
      const std::scoped_lock lock(_mutex);
      return _transfers;
   }

   /// "begin", "end", "read 50 [12] 4", "write 50 [12 34] 01 02".
   std::vector<std::string> journal() const {
      const std::scoped_lock lock(_mutex);
      return _journal;
   }

   /// Whether a rule of the backend's was ever broken: transfers between begin and end, one thread
   /// at a time.
   bool isMisused() const {
      const std::scoped_lock lock(_mutex);
      return _isMisused;
   }

   static std::uint8_t valueAt(std::uint8_t device, std::span<const std::uint8_t> offset,
                               std::size_t index) {
      std::size_t value = device + index * 7;
      for (const std::uint8_t byte : offset) {
         value = value * 31 + byte;
      }
      return static_cast<std::uint8_t>(value);
   }

   std::unique_ptr<Nimbo::BusBackend> backendNew() {
      return std::make_unique<Backend>(shared_from_this());
   }

   /// A bus over this.
   std::shared_ptr<Nimbo::Bus> busNew(Nimbo::BusConfig config) {
      return std::make_shared<Nimbo::Bus>(std::move(config), backendNew());
   }

private:
   class Backend : public Nimbo::BusBackend {
   public:
      explicit Backend(std::shared_ptr<FakeSmbus> bus) : _bus(std::move(bus)) {}

      void begin() override {
         const std::scoped_lock lock(_bus->_mutex);
         if (_bus->busy) {
            _bus->_journal.emplace_back("cannot begin");
            throw std::system_error(*_bus->busy);
         }
         _bus->_isMisused = _bus->_isMisused || std::exchange(_bus->_isBegun, true);
         _bus->_journal.emplace_back("begin");
      }

      void end() noexcept override {
         const std::scoped_lock lock(_bus->_mutex);
         _bus->_isMisused = _bus->_isMisused || !std::exchange(_bus->_isBegun, false);
         _bus->_journal.emplace_back("end");
      }

      int write(std::uint8_t device, std::span<const std::uint8_t> offset,
                std::span<const std::uint8_t> data) override {
         return _bus->_transfer(fmt::format("write {:02x} [{:02x}]{}{:02x}", device,
                                            fmt::join(offset, " "), data.empty() ? "" : " ",
                                            fmt::join(data, " ")));
      }

      int read(std::uint8_t device, std::span<const std::uint8_t> offset,
               std::span<std::uint8_t> data) override {
         for (std::size_t i = 0; i < data.size(); ++i) {
            data[i] = valueAt(device, offset, i);
         }
         return _bus->_transfer(
            fmt::format("read {:02x} [{:02x}] {}", device, fmt::join(offset, " "), data.size()));
      }

   private:
      const std::shared_ptr<FakeSmbus> _bus;
   };

   int _transfer(std::string line) {
      std::function<void()> hook;
      {
         std::unique_lock lock(_mutex);
         _isMisused = _isMisused || !_isBegun || std::exchange(_isTransferring, true);
         _journal.push_back(std::move(line));
         ++_transfers;
         _changed.notify_all();
         _changed.wait(lock, [&] { return !_isHanging || _passes > 0; });
         if (_isHanging) {
            --_passes;
         }
         hook = onTransfer;
      }
      if (hook) {
         hook();
      }
      const std::scoped_lock lock(_mutex);
      _isTransferring = false;
      if (errors.empty()) {
         return 0;
      }
      const int error = errors.front();
      errors.pop_front();
      return error;
   }

   mutable std::mutex _mutex;
   std::condition_variable _changed;
   std::vector<std::string> _journal;
   std::size_t _transfers = 0;
   std::size_t _passes = 0;
   bool _isHanging = false;
   bool _isBegun = false;
   bool _isTransferring = false;
   bool _isMisused = false;
};

} // namespace TestSupport
