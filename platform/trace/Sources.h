#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/trace/Levels.h"
#include "platform/trace/Source.h"

namespace Platform::Trace {

/// The process's registry of sources, and the levels that are in force for them. Internal to the
/// trace facility; programs use Trace.h.
///
/// Created on first use, whichever file's static initialiser that is in, and never destroyed, so
/// that static destructors may trace too. Starts with the levels of the environment variable
/// TARN_TRACE. Any thread.
class Sources {
public:
   /// Ends the process if there is no memory for the registry when it is first needed.
   static Sources& instance() noexcept;

   Sources(const Sources&) = delete;
   Sources& operator=(const Sources&) = delete;

   /// Lists `source` unless it is listed, and sets its threshold.
   void sourceAdd(Source& source) noexcept;

   /// Forgets `source`, whose threshold stays what it is.
   void sourceDel(Source& source) noexcept;

   /// Puts `levels` in force for the sources there are and for those to come.
   void levelsAre(Levels levels);

   [[nodiscard]] std::string levels() const;

   /// The names of the sources, sorted, each once.
   [[nodiscard]] std::vector<std::string> names() const;

   /// What was wrong with the environment variable, one text for each bad entry.
   [[nodiscard]] const std::vector<std::string>& environmentErrors() const noexcept {
      return _environmentErrors;
   }

private:
   Sources();

   mutable std::mutex _mutex;
   Source* _first = nullptr;
   Levels _levels;
   std::vector<std::string> _environmentErrors;
};

} // namespace Platform::Trace
