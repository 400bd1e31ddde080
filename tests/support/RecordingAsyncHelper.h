#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "TarnRegFile/AsyncHelper.h"

namespace TestSupport {

/// An async helper that keeps the results it is told of, one line each, and then does what the
/// test wants.
class RecordingAsyncHelper : public TarnRegFile::AsyncHelperBase {
public:
   RecordingAsyncHelper() { ++alive; }
   ~RecordingAsyncHelper() override { --alive; }

   void handleReadResult(const TarnRegFile::String& regName, TarnRegFile::RegAccessResult result,
                         std::uint32_t value) override {
      _note("read " + regName + " " + stringValue(result) + " " + std::to_string(value));
   }

   void handleWriteResult(const TarnRegFile::String& regName,
                          TarnRegFile::RegAccessResult result) override {
      _note("write " + regName + " " + stringValue(result));
   }

   static inline int alive = 0;
   std::vector<std::string> results;
   std::function<void()> onResult;

private:
   void _note(std::string line) {
      results.push_back(std::move(line));
      if (onResult) {
         // A copy: the action may take this helper's last reference away.
         const auto action = onResult;
         action();
      }
   }
};

} // namespace TestSupport
