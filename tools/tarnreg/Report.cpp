#include "tools/tarnreg/Report.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/TextRange.h"

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

std::string shownName(const std::string& name) {
   const bool plain = std::none_of(name.begin(), name.end(), [](char c) {
      return static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '\x1b';
   });
   return plain ? name : Platform::quote(name);
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

Report::Report(Console& console, std::string verb, bool json, NumberBase base)
   : _console(console), _json(json), _base(base) {
   _document["schema"] = "tarnreg/1";
   _document["verb"] = std::move(verb);
}

void Report::value(const TarnRegFile::HardwareRegister& record, std::uint32_t value) {
   nlohmann::ordered_json element;
   if (_json) {
      element = registerJson(record);
      element["value"] = value;
   }
   row("registers",
       fmt::format("{:<{}}  {}", shownName(record.name), _nameWidth,
                   formatNumber(value, record.width, _base)),
       std::move(element));
}

void Report::row(const std::string& list, const std::string& line, nlohmann::ordered_json element) {
   if (_json) {
      _document[list].push_back(std::move(element));
   } else {
      _console.data() << line << '\n';
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
      _document["errors"].push_back(std::move(element));
   }
}

ExitCode Report::finish() {
   if (_json) {
      _document["exitCode"] = static_cast<int>(_exit);
      _console.data() << _document.dump(2) << '\n';
   }
   _console.data().flush();
   if (!_console.data()) {
      _console.error("cannot write the output");
      _exit = worse(_exit, ExitCode::general);
   }
   return _exit;
}

} // namespace TarnReg
