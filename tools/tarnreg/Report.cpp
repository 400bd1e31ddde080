#include "tools/tarnreg/Report.h"

#include <algorithm>
#include <chrono>
#include <ostream>
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

std::string Report::_valueLine(const TarnRegFile::HardwareRegister& record,
                               const std::string& value) const {
   return fmt::format("{:<{}}  {}", shownName(record.name), _nameWidth, value);
}

void Report::value(const TarnRegFile::HardwareRegister& record, std::uint32_t value) {
   nlohmann::ordered_json element;
   if (_structured()) {
      element = registerJson(record);
      element["value"] = value;
   }
   event(_valueLine(record, formatNumber(value, record.width, _base)), std::move(element));
}

void Report::change(const TarnRegFile::HardwareRegister& record, std::optional<std::uint32_t> value,
                    std::optional<std::uint32_t> previous) {
   using Json = nlohmann::ordered_json;
   Json element;
   if (_structured()) {
      element = registerJson(record);
      element["value"] = value ? Json(*value) : Json();
   }
   if (_jsonLines) {
      element["previous"] = previous ? Json(*previous) : Json();
   }
   event(_valueLine(record, value ? formatNumber(*value, record.width, _base) : "-"),
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

void Report::_printLine(const nlohmann::ordered_json& element) {
   using Milliseconds = std::chrono::milliseconds;
   const auto now = std::chrono::system_clock::now().time_since_epoch();
   nlohmann::ordered_json line;
   line["schema"] = "tarnreg-watch/1";
   line["time"] = static_cast<double>(std::chrono::duration_cast<Milliseconds>(now).count()) / 1000;
   line.update(element);
   // ASCII only, so that no name reaches a terminal as anything but itself.
   _console.data() << line.dump(-1, ' ', true) << std::endl;
}

void Report::row(const std::string& line, nlohmann::ordered_json element) {
   if (_jsonLines) {
      _printLine(element);
   } else if (_json) {
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

void Report::nothing(const std::string& why) {
   if (!_structured()) {
      _console.note(why);
   }
}

void Report::failure(ExitCode code, const std::string& text, const std::string& name) {
   _exit = worse(_exit, code);
   _console.data().flush();
   _console.error(text);
   if (_jsonLines) {
      nlohmann::ordered_json element;
      if (!name.empty()) {
         element["name"] = jsonText(name);
      }
      element["error"] = {{"code", codeName(code)}, {"text", jsonText(text)}};
      _printLine(element);
   } else if (_json) {
      nlohmann::ordered_json element;
      element["code"] = codeName(code);
      if (!name.empty()) {
         element["name"] = jsonText(name);
      }
      element["text"] = jsonText(text);
      if (_line != 0) {
         element["line"] = _line;
      }
      _errors.push_back(std::move(element));
   }
}

void Report::part(Report& part) {
   _console.progressDone();
   _console.data().flush();
   _exit = worse(_exit, part._exit);
   if (!_json) {
      return;
   }
   nlohmann::ordered_json element;
   element["line"] = _line;
   part._document.erase("schema");
   element.update(part._document);
   element["errors"] = part._errors;
   element["exitCode"] = static_cast<int>(part._exit);
   _document[_list].push_back(std::move(element));
   for (nlohmann::ordered_json& error : part._errors) {
      error["line"] = _line;
      _errors.push_back(std::move(error));
   }
}

ExitCode Report::finish() {
   _console.progressDone();
   if (_json && !_jsonLines) {
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
