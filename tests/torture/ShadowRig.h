#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <fstream>
#include <map>
#include <memory>
#include <span>
#include <sstream>

#include "platform/entity/EventLoop.h"
#include "platform/tables/Table.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/CoreRegister.h"
#include "TarnRegFile/CoreState.h"
#include "TarnRegFile/OrderedRegisterOp.h"
#include "TarnRegFile/ShadowClient.h"
#include "tests/torture/Torture.h"

/// What the programs share that torture the shadow agent: a board with one core, the agent's
/// process, its clients' tables, and the hardware, which outlives them all and says by itself what
/// it was told.
namespace Torture {

using Platform::Ptr;
using TarnRegFile::Sable::CorePhase;
using TarnRegFile::Sable::CoreRegister;
using TarnRegFile::Sable::CoreRegisterKey;
using TarnRegFile::Sable::CoreState;
using TarnRegFile::Sable::OpIndex;
using TarnRegFile::Sable::OrderedRegisterOp;
using TarnRegFile::Sable::ShadowClient;

/// How long something may take that has to come about by itself; far more than it ever does.
constexpr std::chrono::seconds patience{60};

inline std::string registerName(std::uint32_t number) {
   return "R[" + std::to_string(number) + "]";
}

inline std::string hex(std::uint64_t number) {
   char text[24];
   std::snprintf(text, sizeof text, "%#llx", static_cast<unsigned long long>(number));
   return text;
}

/// The programs beside this one.
inline std::string programPath(const std::string& name) {
   char self[4096] = {};
   check(::readlink("/proc/self/exe", self, sizeof self - 1) > 0, "readlink");
   const std::string path = self;
   return path.substr(0, path.rfind('/') + 1) + name;
}

/// A file in place of a PCI resource: the words of all registers, shared with whoever has it.
class MappedHardware {
public:
   MappedHardware(const std::string& path, std::uint32_t registers) : _bytes(registers * 4) {
      const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
      check(fd >= 0 && ::ftruncate(fd, static_cast<off_t>(_bytes)) == 0, "hardware file");
      void* const at = ::mmap(nullptr, _bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      check(at != MAP_FAILED, "mmap");
      ::close(fd);
      _words = static_cast<std::uint32_t*>(at);
   }
   ~MappedHardware() { ::munmap(_words, _bytes); }
   MappedHardware(const MappedHardware&) = delete;
   MappedHardware& operator=(const MappedHardware&) = delete;

   std::uint32_t value(std::uint32_t number) const {
      return __atomic_load_n(_words + number, __ATOMIC_SEQ_CST);
   }
   void valueIs(std::uint32_t number, std::uint32_t value) const {
      __atomic_store_n(_words + number, value, __ATOMIC_SEQ_CST);
   }

private:
   const std::size_t _bytes;
   std::uint32_t* _words = nullptr;
};

/// The wire of a simulated I2C device: what was read and written, in its order.
class WireLog {
public:
   struct Access {
      bool isWrite;
      std::uint32_t number;
      std::uint32_t value;
   };

   explicit WireLog(const std::string& path) : _file(path) { check(_file.is_open(), path); }

   /// Takes in what has come since.
   void update() {
      _file.clear();
      for (std::string line; std::getline(_file, line);) {
         if (_file.eof()) {
            _rest += line; // the end of the line is still to come
            break;
         }
         _take(std::exchange(_rest, {}) + line);
      }
   }

   const std::vector<Access>& accesses() const noexcept { return _accesses; }

   /// What a register was last written as.
   std::uint32_t value(std::uint32_t number) const {
      const auto found = _last.find(number);
      return found == _last.end() ? 0 : found->second;
   }

private:
   static std::uint32_t _bytesIn(std::istream& words, unsigned count, const std::string& line) {
      std::uint32_t result = 0;
      for (std::string word; count > 0; --count) {
         check(words >> word && word.size() == 2, "a line of the wire log: " + line);
         result = result << 8 | static_cast<std::uint32_t>(std::stoul(word, nullptr, 16));
      }
      return result;
   }

   // A write is S 50 W 00 07 00 00 00 05 P; a read S 50 W 00 07 P and then
   // S 50 W 00 | Sr 50 R 00 00 00 05 P.
   void _take(const std::string& line) {
      std::istringstream words(line);
      std::string start, address, direction;
      words >> start >> address >> direction;
      const std::size_t again = line.find("| Sr 50 R");
      const bool isWrite = again == std::string::npos;
      check(start == "S" && direction == "W", "a line of the wire log: " + line);
      if (isWrite) {
         _pointer = _bytesIn(words, 2, line);
         if (line.size() < 20) {
            return; // that is where a read will be
         }
      } else {
         words.seekg(static_cast<std::streamoff>(again) + 9);
      }
      const std::uint32_t value = _bytesIn(words, 4, line);
      check(words >> start && start == "P", "a line of the wire log: " + line);
      if (isWrite) {
         _last[_pointer] = value;
      }
      _accesses.push_back({isWrite, _pointer, value});
   }

   std::ifstream _file;
   std::string _rest;
   std::uint32_t _pointer = 0;
   std::vector<Access> _accesses;
   std::map<std::uint32_t, std::uint32_t> _last;
};

/// A table of the core, and its records, for who is told of nothing.
template <typename R>
class PlainTable final : private Platform::Tables::Table<R>::Owner {
public:
   PlainTable(Platform::Tables::TableService& service, const std::string& name, TableRole role)
      : table(name, *this) {
      table.mount(service, {.role = role});
   }
   virtual ~PlainTable() = default;

private:
   void tableChanged(const typename Platform::Tables::Table<R>::Key&) override {}
   void tableMountStatusChanged() override {}
   void tableQuiescedChanged(bool) override {}

public:
   Platform::Tables::Table<R> table;
};

/// The files of a board with a core of so many registers, and where its tables are.
class ShadowBoard {
public:
   static constexpr const char* core = "core";

   /// Writes them into `directory`, or finds them there.
   ShadowBoard(std::string directory, std::uint32_t registers, bool isWired)
      : _directory(std::move(directory)), _registers(registers), _isWired(isWired) {
      if (::access(boardPath().c_str(), F_OK) == 0) {
         return;
      }
      std::ofstream list(path("list.csv"));
      list << "number,name,type,writeable,width\n";
      for (std::uint32_t i = 0; i < registers; ++i) {
         list << i << ',' << registerName(i) << ",control,true,32\n";
      }
      std::ofstream board(boardPath());
      board << "[devices.core]\nlist = \"list.csv\"\ntransport = \""
            << (isWired ? "i2c:/dev/i2c-3@0x50?flavour=1" : "pci:" + hardwarePath()) << "\"\n"
            << "[simulate.i2c.core]\nbus = \"/dev/i2c-3\"\naddress = 0x50\nkind = \"block\"\n"
               "address_unit = 4\n"
               "[shadow]\ncores = [\"core\"]\nretry_first_ms = 5\nretry_most_ms = 20\n"
               "check_interval_ms = 0\nkept_operations = 4096\n";
      check(list.good() && board.good(), "the files of the board");
      list.close();
      board.close();
   }

   std::string path(const std::string& name) const { return _directory + "/" + name; }
   std::string boardPath() const { return path("board.toml"); }
   std::string hardwarePath() const { return path("hardware"); }
   std::string wireLogPath() const { return path("wire.log"); }
   std::string agentLogPath() const { return path("agent.log"); }
   bool isWired() const noexcept { return _isWired; }
   std::uint32_t registers() const noexcept { return _registers; }
   TableDirectory tables() const { return TableDirectory(path("tables")); }

   Ptr<Hardware::HardwareRegisterFile> registerFile() const {
      auto file = Hardware::hardwareRegisterFileFactory(core);
      for (std::uint32_t i = 0; i < _registers; ++i) {
         Hardware::HardwareRegister record;
         record.name = registerName(i);
         record.address = i;
         record.width = 32;
         record.accessWidth = 32;
         record.writable = true;
         file->nameToRegMapIs(record.name, record);
         file->addrToNameMapIs(record.address, record.name);
      }
      return file;
   }

private:
   const std::string _directory;
   const std::uint32_t _registers;
   const bool _isWired;
};

/// What a client has.
struct ShadowTables {
   explicit ShadowTables(const ShadowBoard& board)
      : registers(board.registerFile()), service(loop, board.tables()),
        client(loop, service, ShadowBoard::core, registers),
        ops(service, "core/ops", TableRole::writer),
        outcomes(service, "core/ops-status", TableRole::reader) {}

   Ptr<Hardware::HardwareRegisterFile> registers;
   Platform::EventLoop loop;
   Platform::Tables::TableService service;
   ShadowClient client;
   PlainTable<OrderedRegisterOp> ops;
   PlainTable<OrderedRegisterOp> outcomes;
};

/// The agent's process, and what it says of itself.
class AgentProcess {
public:
   AgentProcess(const ShadowBoard& board, std::string program)
      : _board(board), _program(std::move(program)),
        _state(board.tables(), "core/state",
               {.shape = Platform::Tables::Table<CoreState>::tableShape(), .create = true}) {}
   AgentProcess(const AgentProcess&) = delete;
   AgentProcess& operator=(const AgentProcess&) = delete;

   bool runs() const noexcept { return _pid > 0; }

   void start() {
      check(!runs(), "the agent runs already");
      std::fflush(nullptr);
      _pid = ::fork();
      check(_pid >= 0, "fork");
      if (_pid == 0) {
         ::prctl(PR_SET_PDEATHSIG, SIGKILL);
         const int log =
            ::open(_board.agentLogPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
         ::dup2(log, STDERR_FILENO);
         ::setenv("TARN_TABLE_DIR", _board.tables().path().c_str(), 1);
         ::execl(_program.c_str(), "tarn-shadowd", "--board", _board.boardPath().c_str(), nullptr);
         ::_exit(126);
      }
   }

   /// What it said last; of the process that runs now, or none.
   std::optional<CoreState> state() const {
      std::vector<std::uint64_t> words(_state.recordWords());
      std::array<std::uint8_t, 8> key{};
      CoreState::theKey.serialize(key.data());
      const auto size = _state.get(key, words);
      if (!size) {
         return std::nullopt;
      }
      CoreState result;
      result.deserialize(reinterpret_cast<const std::uint8_t*>(words.data()), *size);
      return result.pid == static_cast<std::uint32_t>(_pid) ? std::optional(result) : std::nullopt;
   }

   void signal(int number) const { ::kill(_pid, number); }

   /// Ends it as it is. It must have lived.
   void kill() {
      signal(SIGKILL);
      const int status = ended(std::exchange(_pid, 0));
      check(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL,
            "the agent ended by itself, status " + std::to_string(status) + ":\n" + lastWords());
   }

   /// Ends it as a supervisor does.
   void stop() {
      signal(SIGTERM);
      const int status = ended(std::exchange(_pid, 0));
      check(status == 0,
            "the agent failed, status " + std::to_string(status) + ":\n" + lastWords());
   }

   void checkLives() {
      int status = 0;
      check(::waitpid(_pid, &status, WNOHANG) == 0,
            "the agent ended by itself, status " + std::to_string(status) + ":\n" + lastWords());
   }

   /// The end of what it wrote.
   std::string lastWords() const {
      std::ifstream file(_board.agentLogPath());
      std::string all((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
      return all.size() > 4000 ? all.substr(all.size() - 4000) : all;
   }

private:
   const ShadowBoard& _board;
   const std::string _program;
   const TableMount _state;
   pid_t _pid = 0;
};

} // namespace Torture
