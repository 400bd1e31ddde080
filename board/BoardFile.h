#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "board/TransportUrl.h"

namespace Board {

/// A device of a board file.
struct DeviceEntry {
   std::string name;
   std::string list; ///< path of the register list
   TransportUrl url;
};

/// The devices that a board file names, so that programs need not be told list and transport each
/// time:
///
///     [devices.fpga]
///     list = "fpga.csv"                  # beside the board file, unless absolute
///     transport = "i2c:/dev/i2c-3@0x50"
///
/// Other tables of the file are other programs' and not looked at. A plain value.
class BoardFile {
public:
   /// Reads the file; opens no device and no list. Throws FileError.
   explicit BoardFile(const std::string& path);

   /// The same for the text of a file at `path`.
   BoardFile(std::string_view text, const std::string& path);

   const std::string& path() const noexcept { return _path; }

   /// In the order of their names.
   const std::vector<DeviceEntry>& devices() const noexcept { return _devices; }

   /// The device of that name, or null.
   const DeviceEntry* find(std::string_view name) const noexcept;

private:
   std::string _path;
   std::vector<DeviceEntry> _devices;
};

} // namespace Board
