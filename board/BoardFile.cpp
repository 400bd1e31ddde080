#include "board/BoardFile.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "board/FileError.h"
#include "board/TomlTable.h"

namespace Board {

namespace {

DeviceEntry entryFrom(const std::string& path, const std::string& name, const toml::table& table) {
   TomlTable device(path, table, fmt::format("[devices.{}]", shown(name)));
   const std::string list = device.text(device.need("list"), "list");
   if (list.empty()) {
      device.failAt("list", "'list' must not be empty");
   }
   const std::string transport = device.text(device.need("transport"), "transport");
   device.finish();
   const std::filesystem::path directory = std::filesystem::path(path).parent_path();
   try {
      TransportUrl url(transport);
      url.directoryIs(directory.string());
      return {name, (directory / list).string(), std::move(url)};
   } catch (const std::invalid_argument& error) {
      device.failAt("transport", error.what());
   }
}

std::vector<DeviceEntry> entriesFrom(const std::string& path, const toml::table& root) {
   std::vector<DeviceEntry> entries;
   const toml::node* devices = root.get("devices");
   if (!devices) {
      return entries;
   }
   const TomlTable file(path, root, "the file");
   if (!devices->is_table()) {
      file.fail(devices->source(), "'devices' must be a table");
   }
   for (const auto& [key, node] : *devices->as_table()) {
      const std::string name(key.str());
      if (!node.is_table()) {
         file.fail(node.source(), fmt::format("'{}' must be a table", shown(name)));
      }
      if (name.empty()) {
         file.fail(key.source(), "a device needs a name");
      }
      entries.push_back(entryFrom(path, name, *node.as_table()));
   }
   // TOML has no order of keys; the parser's is an accident.
   std::sort(entries.begin(), entries.end(),
             [](const DeviceEntry& a, const DeviceEntry& b) { return a.name < b.name; });
   return entries;
}

} // namespace

BoardFile::BoardFile(const std::string& path)
   : _path(path), _devices(entriesFrom(path, tomlFromFile(path))) {}

BoardFile::BoardFile(std::string_view text, const std::string& path)
   : _path(path), _devices(entriesFrom(path, tomlFromText(text, path))) {}

const DeviceEntry* BoardFile::find(std::string_view name) const noexcept {
   const auto entry =
      std::find_if(_devices.begin(), _devices.end(),
                   [name](const DeviceEntry& device) { return device.name == name; });
   return entry == _devices.end() ? nullptr : &*entry;
}

} // namespace Board
