#include "platform/trace/CaptureSink.h"

#include <ostream>

#include "platform/trace/Line.h"

namespace Platform::Trace {

CaptureSink::CaptureSink() = default;
CaptureSink::~CaptureSink() = default;

void CaptureSink::write(const Record& record) {
   Entry entry{std::string(record.source), std::string(record.function), record.level,
               std::string(record.text)};
   const std::lock_guard lock(_mutex);
   _entries.push_back(std::move(entry));
}

std::vector<CaptureSink::Entry> CaptureSink::records() const {
   const std::lock_guard lock(_mutex);
   return _entries;
}

std::vector<std::string> CaptureSink::texts() const {
   const std::lock_guard lock(_mutex);
   std::vector<std::string> texts;
   texts.reserve(_entries.size());
   for (const Entry& entry : _entries) {
      texts.push_back(entry.text);
   }
   return texts;
}

void CaptureSink::clear() {
   const std::lock_guard lock(_mutex);
   _entries.clear();
}

std::ostream& operator<<(std::ostream& stream, const CaptureSink::Entry& entry) {
   return stream << entry.level << ' '
                 << lineBody({entry.source, entry.function, entry.level, entry.text, {}});
}

} // namespace Platform::Trace
