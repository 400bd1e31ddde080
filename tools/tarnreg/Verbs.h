#pragma once

#include <functional>
#include <string>
#include <vector>

#include "board/BoardFile.h"
#include "TarnRegFile/RegisterFileChecker.h"
#include "tools/tarnreg/Console.h"
#include "tools/tarnreg/Device.h"
#include "tools/tarnreg/Report.h"

/// What the command does, verb by verb. Each works on an opened device and says everything through
/// its Report, so that it can be used and tested without a process around it.
namespace TarnReg {

/// Lists the devices of a board file: name, register list, transport.
void listDevices(const Board::BoardFile& board, Report& report);

/// Lists the registers that match `patterns`; all of them without patterns.
void listRegisters(Device& device, const std::vector<std::string>& patterns, Report& report);

/// Reads the registers that match `patterns`. What can be read is printed, also when others fail.
void readRegisters(Device& device, const std::vector<std::string>& patterns, Report& report);

/// Reads every register that matches `patterns`, or all, but for those of type "cfg" unless
/// `all` is set.
void dumpRegisters(Device& device, const std::vector<std::string>& patterns, bool all,
                   Report& report);

/// How writeRegisters() goes about it.
struct WriteOptions {
   bool dryRun = false;  ///< say what would be written, write nothing
   bool verify = false;  ///< read back and compare, within the register's width
   bool confirm = false; ///< ask first
   bool force = false;   ///< also registers that the list calls read-only
};

/// Writes "NAME=VALUE" assignments in order; a pattern on the left writes each register that it
/// matches. Everything is checked before the first write: with one bad assignment nothing is
/// written.
void writeRegisters(Device& device, const std::vector<std::string>& assignments,
                    const WriteOptions& options, Console& console, Report& report);

/// Reports the problems of a register list, and fails when one is at least `failOn`.
void checkFile(const std::string& file, TarnRegFile::ProblemSeverity failOn, Report& report);

/// Describes the type of that name from its reflection table; without a name, lists the types.
void describeType(const std::string& type, Report& report);

/// Calls a reflected operation of the device's TransportMethod with arguments as typed.
void callOperation(Device& device, const std::string& operation,
                   const std::vector<std::string>& arguments, Report& report);

} // namespace TarnReg
