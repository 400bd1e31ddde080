#include "tools/tarnreg/Report.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "tools/tarnreg/Printable.h"

namespace TarnReg {

namespace {

std::string_view codeName(ExitCode code) {
   switch (code) {
   case ExitCode::ok:
      return "ok";
   case ExitCode::usage:
      return "usage";
   case ExitCode::unknownName:
      return "unknown-name";
   case ExitCode::refused:
      return "refused";
   case ExitCode::deviceError:
      return "device-error";
   case ExitCode::timeout:
      return "timeout";
   case ExitCode::readBackMismatch:
      return "read-back-mismatch";
   case ExitCode::general:
      break;
   }
   return "general";
}

} // namespace

std::size_t nameColumnWidth(const std::vector<const TarnRegFile::HardwareRegister*>& registers) {
   // One absurd name must not blow up every other line.
   constexpr std::size_t widest = 60;
   std::size_t width = 0;
   for (const TarnRegFile::HardwareRegister* record : registers) {
      width = std::max(width, std::min(widest, shownName(record->name).size()));
   }
   return width;
}

std::string jsonText(const std::string& text) {
   return nlohmann::json::parse(
             nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace))
      .get<std::string>();
}

nlohmann::ordered_json registerJson(const TarnRegFile::HardwareRegister& record) {
   nlohmann::ordered_json json;
   json["name"] = jsonText(record.name);
   json["address"] = record.address;
   json["width"] = record.width;
   json["arraySize"] = record.arraySize;
   json["type"] = TarnRegFile::HardwareRegister::regTypeToString(record.type);
   json["writable"] = record.writable;
   return json;
}

Report::Report(Console& console, std::string verb, std::string list, bool json, NumberBase base)
   : _console(console), _json(json), _base(base), _list(std::move(list)) {
   _document["schema"] = "tarnreg/1";
   _document["verb"] = std::move(verb);
   _document[_list] = nlohmann::ordered_json::array();
}

void Report::value(const TarnRegFile::HardwareRegister& record, std::uint32_t value) {
   nlohmann::ordered_json element;
   if (_json) {
      element = registerJson(record);
      element["value"] = value;
   }
   event(fmt::format("{:<{}}  {}", shownName(record.name), _nameWidth,
                     formatNumber(value, record.width, _base)),
         std::move(element));
}

void Report::difference(const TarnRegFile::HardwareRegister& record, std::uint32_t value,
                        std::uint32_t other) {
   nlohmann::ordered_json element;
   if (_json) {
      element = registerJson(record);
      element["value"] = value;
      element["other"] = other;
   }
   row(fmt::format("{:<{}}  {}  {}", shownName(record.name), _nameWidth,
                   formatNumber(value, record.width, _base),
                   formatNumber(other, record.width, _base)),
       std::move(element));
   if (!_json) {
      _console.data().flush();
   }
}

void Report::property(const std::string& key, nlohmann::ordered_json value) {
   _document[key] = std::move(value);
}

void Report::row(const std::string& line, nlohmann::ordered_json element) {
   if (_json) {
      _document[_list].push_back(std::move(element));
   } else {
      _console.data() << line << '\n';
   }
}

void Report::event(const std::string& line, nlohmann::ordered_json element) {
   row(line, std::move(element));
   if (!_json) {
      _console.data().flush();
   }
}

void Report::failure(ExitCode code, const std::string& text, const std::string& name) {
   _exit = worse(_exit, code);
   _console.data().flush();
   _console.error(text);
   if (_json) {
      nlohmann::ordered_json element;
      element["code"] = codeName(code);
      if (!name.empty()) {
         element["name"] = jsonText(name);
      }
      element["text"] = jsonText(text);
      _errors.push_back(std::move(element));
   }
}

ExitCode Report::finish() {
   _console.progressDone();
   if (_json) {
      _document["errors"] = std::move(_errors);
      _document["exitCode"] = static_cast<int>(_exit);
      // ASCII only, so that no name reaches a terminal as anything but itself.
      _console.data() << _document.dump(2, ' ', true) << '\n';
   }
   if (!_console.finish()) {
      _exit = worse(_exit, ExitCode::general);
   }
   return _exit;
}

} // namespace TarnReg
