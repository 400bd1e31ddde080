// New generations in the middle of bursts of wishes: two clients wish ten thousand times, while the
// agent is told again and again, by a signal and by the table of requests in turns, to begin anew.
// Afterwards each register holds exactly what was wished for it last.
//
// In a second part the hardware is an I2C device of a simulated board. Its wire log shows that each
// generation begins cleanly: between the writes of two generations every register is read once for
// the probe and once for the shadow, and nothing is written meanwhile.

#include <filesystem>
#include <set>
#include <thread>

#include "tests/torture/ShadowRig.h"

namespace {

using namespace Torture;
using Clock = std::chrono::steady_clock;

constexpr unsigned clients = 2;
constexpr std::uint32_t wishesOfClient = 5000;
constexpr std::uint32_t mappedRegisters = 1000;
constexpr std::uint32_t wiredRegisters = 64;
constexpr std::uint32_t wished = 64; // of the registers, every second one by the same client

struct Notes {
   std::atomic<std::uint32_t> last[wished]; // what was wished for each register last
   std::atomic<unsigned> done{0};
};

class Renewals {
public:
   Renewals(const ShadowBoard& board, std::uint32_t seed)
      : _board(board), _random(seed), _agent(board, programPath("tarn-shadowd")) {
      if (board.isWired()) {
         _wire = std::make_unique<WireLog>(board.wireLogPath());
      } else {
         _mapped = std::make_unique<MappedHardware>(board.hardwarePath(), board.registers());
      }
   }

   void run(Clock::time_point deadline) {
      _agent.start();
      do {
         _burst();
      } while (Clock::now() < deadline);
      _agent.stop();
      if (_wire) {
         _wire->update();
         _checkBeginnings();
      }
      std::printf("%s: %u bursts of %u wishes, %u renewals by signal and %u by request, %u "
                  "generations, %u of them %s; 0 lost\n",
                  _wire ? "wire" : "file", _bursts, clients * wishesOfClient, _signals, _requests,
                  _generation, _beginnings, _wire ? "found on the wire" : "seen to be ready");
   }

private:
   std::uint32_t _hardware(std::uint32_t number) const {
      return _wire ? _wire->value(number) : _mapped->value(number);
   }

   void _wish(unsigned me, std::uint32_t seed) {
      std::mt19937 random(seed);
      ShadowTables tables(_board);
      for (std::uint32_t i = 0; i < wishesOfClient; ++i) {
         const std::uint32_t number = random() % (wished / clients) * clients + me;
         const std::uint32_t value = (_bursts * wishesOfClient + i + 1) * clients + me;
         tables.client.wishIs(registerName(number), value);
         _notes->last[number].store(value);
         if (i % 64 == 0) {
            ::usleep(random() % 2000); // so that the burst goes through some generations
         }
      }
      ++_notes->done;
   }

   void _renew(ShadowTables& tables) {
      if ((_signals + _requests) % 2 == 0) {
         _agent.signal(SIGHUP);
         ++_signals;
      } else {
         PlainTable<CoreRegister>(tables.service, "core/request", TableRole::writer)
            .table.put(CoreRegister(CoreRegisterKey(0), ++_request));
         ++_requests;
      }
   }

   void _burst() {
      ShadowTables tables(_board);
      const auto await = [&](const char* what, const std::function<bool()>& isSo) {
         const auto end = Clock::now() + patience;
         while (!tables.loop.runUntil(isSo, std::chrono::milliseconds(2))) {
            _agent.checkLives();
            check(Clock::now() < end, std::string("waited in vain for ") + what);
         }
      };
      const auto isReady = [&] {
         const auto state = _agent.state();
         return state && state->ready;
      };
      await("the agent", isReady);
      _notes->done.store(0);
      std::array<pid_t, clients> pids{};
      for (unsigned i = 0; i < clients; ++i) {
         const std::uint32_t seed = _random();
         pids[i] = child([&, i, seed] { _wish(i, seed); });
      }
      while (_notes->done.load() < clients) {
         // Sometimes it is ready by then, sometimes this meets the probe of the one before.
         tables.loop.runFor(std::chrono::microseconds(_random() % 60000));
         _checkState();
         _renew(tables);
         for (const pid_t pid : pids) {
            check(::kill(pid, 0) == 0, "a client is gone");
         }
      }
      for (const pid_t pid : pids) {
         check(ended(pid) == 0, "a client failed");
      }
      await("the agent", isReady);
      // One more, which nothing comes after: what was wished last is written by it, if by nobody.
      const std::uint32_t before = _agent.state()->generation;
      _renew(tables);
      await("a last generation", [&] {
         const auto state = _agent.state();
         return state && state->ready && state->generation > before;
      });
      if (_wire) {
         _wire->update();
      }
      for (std::uint32_t number = 0; number < wished; ++number) {
         const std::uint32_t last = _notes->last[number].load();
         const std::string which = registerName(number) + ": ";
         check(_hardware(number) == last, which + "the hardware holds " + hex(_hardware(number)) +
                                             ", and wished last was " + hex(last));
         check(tables.client.value(number) == last, which + "the status says otherwise");
      }
      _checkState();
      ++_bursts;
   }

   /// Numbers of generations only grow, and one that is ready has read all.
   void _checkState() {
      const auto state = _agent.state();
      if (!state) {
         return;
      }
      check(state->generation >= _generation, "an old generation is back");
      check(state->errors == 0 && state->losses == 0 && state->lastError.empty(),
            "something failed: " + state->lastError);
      check(!state->ready || state->valid, "a generation is ready that is not valid");
      if (state->ready) {
         check(state->registersRead == _board.registers(), "not all registers were read");
         _beginnings += !_wire && state->generation > _generation;
      }
      _generation = state->generation;
   }

   /// Between writes there are either no reads, or as many as a beginning has at the least.
   void _checkBeginnings() {
      const auto& accesses = _wire->accesses();
      const std::size_t all = _board.registers();
      std::size_t reads = 0;
      for (std::size_t i = 0; i < accesses.size(); ++i) {
         if (!accesses[i].isWrite) {
            ++reads;
            continue;
         }
         if (reads != 0) {
            check(reads >= 2 * all, "a generation wrote before it had read all");
            for (const std::size_t end : {i, i - all}) { // the shadow, and the probe before it
               std::set<std::uint32_t> numbers;
               for (std::size_t k = end - all; k < end; ++k) {
                  numbers.insert(accesses[k].number);
               }
               check(numbers.size() == all, "a generation did not read each register once");
            }
            ++_beginnings;
         }
         reads = 0;
      }
      // And what was read is what had been written.
      std::map<std::uint32_t, std::uint32_t> held;
      for (const auto& access : accesses) {
         if (access.isWrite) {
            held[access.number] = access.value;
         } else {
            check(held[access.number] == access.value, "the device does not hold what was written");
         }
      }
   }

   const ShadowBoard& _board;
   std::mt19937 _random;
   const Shared<Notes> _notes;
   std::unique_ptr<WireLog> _wire;
   std::unique_ptr<MappedHardware> _mapped;
   AgentProcess _agent;
   std::uint32_t _bursts = 0;
   std::uint32_t _signals = 0;
   std::uint32_t _requests = 0;
   std::uint32_t _request = 0;
   std::uint32_t _generation = 0;
   std::uint32_t _beginnings = 0;
};

} // namespace

int main(int argc, char** argv) {
   std::string inside;
   std::vector<char*> rest{argv[0]};
   for (int i = 1; i < argc; ++i) {
      if (std::string(argv[i]) == "--inside" && i + 1 < argc) {
         inside = argv[++i];
      } else {
         rest.push_back(argv[i]);
      }
   }
   const Options options = Options::of(static_cast<int>(rest.size()), rest.data());
   if (!inside.empty()) {
      const ShadowBoard board(inside, wiredRegisters, true);
      Renewals(board, options.seed).run(options.deadline());
      return 0;
   }
   Options half = options;
   half.seconds = options.seconds / 2;
   const Torture::Directory directory;
   std::filesystem::create_directory(directory.path() + "/file");
   std::filesystem::create_directory(directory.path() + "/wire");
   {
      const ShadowBoard board(directory.path() + "/file", mappedRegisters, false);
      Renewals(board, options.seed).run(half.deadline());
   }
   const ShadowBoard board(directory.path() + "/wire", wiredRegisters, true);
   const std::string simulator = programPath("tarnsim") + " --board " + board.boardPath();
   if (std::system((simulator + " -- true 2>/dev/null").c_str()) != 0) {
      std::printf("wire: left out, as no board can be simulated here\n");
      return 0;
   }
   std::fflush(nullptr);
   const std::string command =
      simulator + " --wire-log " + board.wireLogPath() + " -- " +
      programPath("torture_shadow_renew") + " --inside " + directory.path() + "/wire --seconds " +
      std::to_string(half.seconds) + " --seed " + std::to_string(options.seed);
   check(std::system(command.c_str()) == 0, "the part on the wire");
   return 0;
}
