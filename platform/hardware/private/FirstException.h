#pragma once

#include <exception>
#include <utility>

namespace Hardware {

/// Runs steps that must all be taken, whatever they throw, and keeps the first exception for the
/// end.
class FirstException {
public:
   template <typename Step>
   void of(const Step& step) noexcept {
      try {
         step();
      } catch (...) {
         if (!_exception) {
            _exception = std::current_exception();
         }
      }
   }

   explicit operator bool() const noexcept { return static_cast<bool>(_exception); }

   /// Throws the exception, if there was one.
   void rethrow() {
      if (_exception) {
         std::rethrow_exception(std::exchange(_exception, nullptr));
      }
   }

private:
   std::exception_ptr _exception;
};

} // namespace Hardware
