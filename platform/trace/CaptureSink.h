#pragma once

#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

#include "platform/trace/Sink.h"

namespace Platform::Trace {

/// Keeps records, for tests that assert what was traced. CaptureScope installs one for the length
/// of a scope. Any thread.
class TARN_PLATFORM_API CaptureSink : public Sink {
public:
   /// A record that owns its texts; they are the bytes as traced, nothing escaped.
   struct Entry {
      std::string source;
      std::string function;
      int level;
      std::string text;

      friend bool operator==(const Entry&, const Entry&) = default;
   };

   CaptureSink();
   ~CaptureSink() override;

   void write(const Record& record) override;

   /// All records so far, oldest first.
   [[nodiscard]] std::vector<Entry> records() const;

   /// The texts of all records so far, oldest first.
   [[nodiscard]] std::vector<std::string> texts() const;

   void clear();

private:
   mutable std::mutex _mutex;
   std::vector<Entry> _entries;
};

/// How failing tests show an entry.
TARN_PLATFORM_API std::ostream& operator<<(std::ostream& stream, const CaptureSink::Entry& entry);

} // namespace Platform::Trace
