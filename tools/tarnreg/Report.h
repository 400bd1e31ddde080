#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "TarnRegFile/Types.h"
#include "tools/tarnreg/Console.h"
#include "tools/tarnreg/ExitCode.h"
#include "tools/tarnreg/NumberFormat.h"

namespace TarnReg {

/// Collects what a verb found and says it as lines or as one JSON document, and keeps the exit
/// code. Lines are printed as they come, the document when the verb is done, also when parts of
/// it failed.
class Report {
public:
   /// `list` is the name that the document's array of results has.
   Report(Console& console, std::string verb, std::string list, bool json, NumberBase base);

   bool json() const noexcept { return _json; }

   /// Prints results and failures one by one as they come, each a JSON object in a line of its own
   /// (schema tarnreg-watch/1, docs/schemas), in place of all else.
   void jsonLinesIs(bool jsonLines) noexcept { _jsonLines = jsonLines; }
   bool jsonLines() const noexcept { return _jsonLines; }

   /// What the command is to exit with as far as is known now.
   ExitCode code() const noexcept { return _exit; }

   /// How values are shown.
   NumberBase base() const noexcept { return _base; }

   /// A register and its value: "NAME  0x2a". Out at once, so that of a device that hangs one sees
   /// where.
   void value(const TarnRegFile::HardwareRegister& record, std::uint32_t value);

   /// A register that was found to hold another value than before; `previous` is not shown in
   /// lines. Without a value it is not known any more, or yet.
   void change(const TarnRegFile::HardwareRegister& record, std::optional<std::uint32_t> value,
               std::optional<std::uint32_t> previous);

   /// A register of which two values differ: "NAME  0x2a  0x2b". In the document the second one is
   /// `other`.
   void difference(const TarnRegFile::HardwareRegister& record, std::uint32_t value,
                   std::uint32_t other);

   /// How far the verb has come; shown to a person who waits (see Console::progress()).
   void progress(std::size_t done, std::size_t total) { _console.progress(done, total); }

   /// One line of data, or one element of the document's array of results.
   void row(const std::string& line, nlohmann::ordered_json element);

   /// The same for what happened just now: a line is out at once.
   void event(const std::string& line, nlohmann::ordered_json element);

   /// What comes from now on is of that line of a script, from 1.
   void lineIs(std::size_t line) noexcept { _line = line; }

   /// The whole of what another report on the same console found, as the next element of the
   /// results here.
   void part(Report& part);

   /// A member of the document beside the results.
   void property(const std::string& key, nlohmann::ordered_json value);

   /// Has everything out that was printed so far.
   void flush() { _console.data().flush(); }

   /// What a person should know of the data, said at once on standard error.
   void warning(const std::string& text) { _console.warning(text); }

   /// Why there are no results, said on standard error to a person, who might think otherwise that
   /// nothing happened. JSON says it by itself.
   void nothing(const std::string& why);

   /// A failure: said at once on standard error, kept for the document and the exit code.
   void failure(ExitCode code, const std::string& text, const std::string& name = {});

   /// Prints the document, if that is what was asked for, and returns the exit code.
   ExitCode finish();

   /// How many columns the names of value() lines take at least.
   void nameWidthIs(std::size_t width) noexcept { _nameWidth = width; }

private:
   bool _structured() const noexcept { return _json || _jsonLines; }
   void _printLine(const nlohmann::ordered_json& element);
   std::string _valueLine(const TarnRegFile::HardwareRegister& record,
                          const std::string& value) const;

   Console& _console;
   bool _json;
   bool _jsonLines = false;
   NumberBase _base;
   std::size_t _nameWidth = 0;
   std::size_t _line = 0; // 0 for none
   ExitCode _exit = ExitCode::ok;
   std::string _list;
   nlohmann::ordered_json _document;
   nlohmann::ordered_json _errors = nlohmann::ordered_json::array();
};

/// The attributes of a register that JSON output shows of it everywhere.
nlohmann::ordered_json registerJson(const TarnRegFile::HardwareRegister& record);

/// The column that the names of these registers take: the longest's, within reason.
std::size_t nameColumnWidth(const std::vector<const TarnRegFile::HardwareRegister*>& registers);

/// A text as JSON takes it: bytes that are no valid UTF-8 replaced.
std::string jsonText(const std::string& text);

} // namespace TarnReg
