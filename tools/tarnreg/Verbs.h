#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "board/BoardFile.h"
#include "TarnRegFile/RegisterFileChecker.h"
#include "tools/tarnreg/Console.h"
#include "tools/tarnreg/Device.h"
#include "tools/tarnreg/Pace.h"
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

/// How watchRegisters() goes about it.
struct WatchOptions {
   std::chrono::steady_clock::duration interval = std::chrono::seconds(1); ///< between two rounds
   std::uint64_t count = 0; ///< rounds; 0 goes on until the process is interrupted
};

/// Reads the registers that match `patterns`, all of them without patterns, again and again, and
/// prints those whose value is another one than in the round before; in the first round, all. A
/// failure is reported when it begins, and does not end the watch.
void watchRegisters(Device& device, const std::vector<std::string>& patterns,
                    const WatchOptions& options, const Pace& pace, Report& report);

/// How pollRegisters() goes about it.
struct PollOptions {
   std::chrono::steady_clock::duration interval = std::chrono::milliseconds(100);
   std::chrono::steady_clock::duration timeout = std::chrono::seconds(10);
};

/// Reads registers until every condition, "NAME=VALUE" or "NAME&MASK=VALUE", holds in one round,
/// and prints them; a pattern for a name means each register that it matches. Reads that fail are
/// tried again like values that do not fit. Throws Failure (timeout) when the time is over; there
/// is a last look then, and always a first one.
void pollRegisters(Device& device, const std::vector<std::string>& conditions,
                   const PollOptions& options, const Pace& pace, Report& report);

class SavedDump;

/// Compares the registers that match `patterns`, all of them without patterns but for those of
/// type "cfg" unless `all` is set, by name with those of `other`. Prints those that differ, and
/// fails when any does.
void diffDevices(Device& device, Device& other, const std::vector<std::string>& patterns, bool all,
                 Report& report);

/// Compares registers with a saved dump: those that match `patterns`, or all that the dump has.
void diffDump(Device& device, const SavedDump& dump, const std::vector<std::string>& patterns,
              Report& report);

/// Reports the problems of a register list, and fails when one is at least `failOn`.
void checkFile(const std::string& file, TarnRegFile::ProblemSeverity failOn, Report& report);

/// The short names of the types that describeType() knows.
std::vector<std::string> typeNames();

/// The operations that callOperation() knows.
std::vector<std::string> operationNames();

/// Describes the type of that name from its reflection table; without a name, lists the types.
void describeType(const std::string& type, Report& report);

/// Calls a reflected operation of the device's TransportMethod with arguments as typed.
void callOperation(Device& device, const std::string& operation,
                   const std::vector<std::string>& arguments, Report& report);

} // namespace TarnReg
