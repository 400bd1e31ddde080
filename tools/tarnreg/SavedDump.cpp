#include "tools/tarnreg/SavedDump.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/NumberFormat.h"
#include "tools/tarnreg/Printable.h"

namespace TarnReg {

namespace {

constexpr const char* schema = "tarnreg/1";
constexpr const char* blanks = " \t\r";

[[noreturn]] void refuse(const std::string& where, const std::string& text) {
   throw Failure(ExitCode::general, fmt::format("{}: {}", where, text));
}

std::string contentOf(const std::string& path) {
   errno = 0;
   std::ifstream in(path, std::ios::binary);
   std::ostringstream content;
   if (in && in.peek() != std::ifstream::traits_type::eof()) {
      content << in.rdbuf();
   }
   if (!in.is_open() || in.bad()) {
      refuse(path, errno != 0 ? std::strerror(errno) : "cannot be read");
   }
   return content.str();
}

} // namespace

SavedDump::SavedDump(const std::string& path) {
   const std::string text = contentOf(path);
   const std::size_t first = text.find_first_not_of(" \t\r\n");
   if (first != std::string::npos && text[first] == '{') {
      _readJson(path, text);
   } else {
      _readLines(path, text);
   }
   for (std::size_t i = 0; i < _entries.size(); ++i) {
      _byName.emplace_back(_entries[i].first, i);
   }
   std::sort(_byName.begin(), _byName.end());
   const auto twice =
      std::adjacent_find(_byName.begin(), _byName.end(),
                         [](const auto& a, const auto& b) { return a.first == b.first; });
   if (twice != _byName.end()) {
      refuse(path, fmt::format("{} is there twice", shownName(twice->first)));
   }
}

const std::uint32_t* SavedDump::find(const std::string& name) const noexcept {
   const auto found =
      std::lower_bound(_byName.begin(), _byName.end(), name,
                       [](const auto& entry, const auto& wanted) { return entry.first < wanted; });
   return found != _byName.end() && found->first == name ? &_entries[found->second].second
                                                         : nullptr;
}

void SavedDump::_readJson(const std::string& path, const std::string& text) {
   nlohmann::json document;
   try {
      document = nlohmann::json::parse(text);
   } catch (const nlohmann::json::exception& error) {
      refuse(path, error.what());
   }
   if (document.value("schema", nlohmann::json()) != schema) {
      refuse(path, fmt::format("no document of schema {}", schema));
   }
   const nlohmann::json registers = document.value("registers", nlohmann::json());
   if (!registers.is_array()) {
      refuse(path, "the document has no registers");
   }
   for (const nlohmann::json& element : registers) {
      const bool good =
         element.is_object() && element.contains("name") && element["name"].is_string() &&
         element.contains("value") && element["value"].is_number_unsigned() &&
         element["value"].get<std::uint64_t>() <= std::numeric_limits<std::uint32_t>::max();
      if (!good) {
         refuse(path, fmt::format("register {} of the document has no name or no value of 32 bits",
                                  _entries.size() + 1));
      }
      _entries.emplace_back(element["name"].get<std::string>(),
                            element["value"].get<std::uint32_t>());
   }
}

void SavedDump::_readLines(const std::string& path, const std::string& text) {
   std::istringstream in(text);
   std::string line;
   for (std::size_t number = 1; std::getline(in, line); ++number) {
      line.erase(line.find_last_not_of(blanks) + 1);
      if (line.empty()) {
         continue;
      }
      const std::string where = fmt::format("{}:{}", path, number);
      const std::size_t gap = line.find_last_of(blanks);
      const std::size_t end =
         gap == std::string::npos ? std::string::npos : line.find_last_not_of(blanks, gap);
      if (end == std::string::npos) {
         refuse(where, "no line of a dump: a name and a value");
      }
      std::string name = line.substr(0, end + 1);
      if (name.front() == '\'') {
         refuse(where, "a name in quotes cannot be read back; save the dump with --json");
      }
      try {
         _entries.emplace_back(std::move(name), parseNumber(line.substr(gap + 1), "value"));
      } catch (const Failure& failure) {
         refuse(where, failure.what());
      }
   }
}

} // namespace TarnReg
