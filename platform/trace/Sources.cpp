#include "platform/trace/Sources.h"

#include <algorithm>
#include <cstdlib>

#include "platform/trace/ErrnoKeeper.h"

namespace Platform::Trace {

Sources& Sources::instance() noexcept {
   static Sources& sources = *new Sources; // NOLINT(bugprone-unhandled-exception-at-new)
   return sources;
}

Sources::Sources() {
   if (const char* spec = std::getenv("TARN_TRACE")) {
      _levels = Levels(spec, _environmentErrors);
   }
}

void Sources::sourceAdd(Source& source) noexcept {
   const ErrnoKeeper errnoKeeper;
   const std::lock_guard lock(_mutex);
   if (source._threshold.load(std::memory_order_relaxed) != Source::_unregistered) {
      return;
   }
   source._next = _first;
   if (_first != nullptr) {
      _first->_previous = &source;
   }
   _first = &source;
   source._threshold.store(static_cast<std::int8_t>(_levels.threshold(source._name)),
                           std::memory_order_relaxed);
}

void Sources::sourceDel(Source& source) noexcept {
   const ErrnoKeeper errnoKeeper;
   const std::lock_guard lock(_mutex);
   if (source._previous != nullptr) {
      source._previous->_next = source._next;
   } else if (_first == &source) {
      _first = source._next;
   }
   if (source._next != nullptr) {
      source._next->_previous = source._previous;
   }
   source._next = nullptr;
   source._previous = nullptr;
}

void Sources::levelsAre(Levels levels) {
   const std::lock_guard lock(_mutex);
   std::swap(_levels, levels);
   for (Source* source = _first; source != nullptr; source = source->_next) {
      source->_threshold.store(static_cast<std::int8_t>(_levels.threshold(source->_name)),
                               std::memory_order_relaxed);
   }
}

std::string Sources::levels() const {
   const std::lock_guard lock(_mutex);
   return _levels.spec();
}

std::vector<std::string> Sources::names() const {
   std::vector<std::string> names;
   {
      const std::lock_guard lock(_mutex);
      for (const Source* source = _first; source != nullptr; source = source->_next) {
         names.emplace_back(source->_name);
      }
   }
   std::sort(names.begin(), names.end());
   names.erase(std::unique(names.begin(), names.end()), names.end());
   return names;
}

} // namespace Platform::Trace
