#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace TarnReg {

/// The values of a dump that was saved to a file: the JSON document of "dump" or "read", or their
/// lines. Values may be in any base.
class SavedDump {
public:
   using Entry = std::pair<std::string, std::uint32_t>;

   /// Reads the file. Throws Failure (general), with the line where there is one, for a file that
   /// cannot be read, is no dump, or names a register twice. Lines show a name that a terminal
   /// would not show as it is in quotes; such a name is not read back, only JSON has it.
   explicit SavedDump(const std::string& path);

   /// Names and values, in the order of the file.
   const std::vector<Entry>& entries() const noexcept { return _entries; }

   /// The value of a register, or null.
   const std::uint32_t* find(const std::string& name) const noexcept;

private:
   void _readJson(const std::string& path, const std::string& text);
   void _readLines(const std::string& path, const std::string& text);

   std::vector<Entry> _entries;
   std::vector<std::pair<std::string, std::size_t>> _byName; // sorted, once all are read
};

} // namespace TarnReg
