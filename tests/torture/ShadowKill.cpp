// The shadow agent and its clients are killed at random moments, again and again: the agent while
// it starts, probes, syncs, writes and carries out ordered operations, the clients while they wish
// and order, now and then all at once. From time to time the dust is let settle, and then
//
// - every acknowledged wish is in the hardware, or was followed by another one of its register;
//   nothing else is in there, and the tables of wishes and of status agree with it
// - those who follow the registers have been told what they hold
// - of every ordered operation a prefix was written, once; all that its outcome claims, and at most
//   one write more, and that only where an agent died
//
// The hardware outlives everybody and is looked at directly. It is a file in place of a PCI
// resource, and in a second part an I2C device of a simulated board, whose wire log has every write
// in its order. A file keeps no record of writes, so as soon as an ordered operation has ended, its
// registers are stamped over: a write that is repeated later leaves its mark.
//
// Whoever is about to change something notes that before and afterwards in memory that survives it,
// with tickets from one counter. A change whose first ticket is above the second of another one
// came later; changes that overlap may have come in either order.
//
// With --control NAME something is spoilt on purpose, and with --agent PROGRAM another agent is
// used. --controls sees to it that all that is found, and so are the faults of agents that were
// broken on purpose (--mutant PROGRAM PART FAULT).

#include <algorithm>
#include <set>
#include <thread>

#include "tests/torture/ShadowRig.h"

namespace {

using namespace Torture;
using Clock = std::chrono::steady_clock;

constexpr unsigned clients = 3;
constexpr unsigned followers = 2;
constexpr unsigned slotsOfClient = 3;
constexpr unsigned slots = clients * slotsOfClient;

// The registers: those that are only wished for, by all clients; those of ordered operations, a
// range for each slot, of which one operation at a time makes use; those that are both wished for
// and ordered; some that are only there to be read; and the one whose wish says that a round is
// over.
constexpr std::uint32_t wishedRegisters = 64;
constexpr std::uint32_t slotSize = 24;
constexpr std::uint32_t firstOrdered = wishedRegisters;
constexpr std::uint32_t firstMixed = firstOrdered + slots * slotSize;
constexpr std::uint32_t mixedRegisters = 4;
constexpr std::uint32_t firstIdle = firstMixed + mixedRegisters;

constexpr std::uint32_t mostWishes = 1u << 12; // of a client and round
constexpr std::uint32_t mostOrders = 600;
constexpr std::uint32_t mostRegisters = 4096;

constexpr std::uint64_t never = ~std::uint64_t{0};

struct Wish {
   std::uint32_t number = 0;
   std::uint64_t tried = 0; // ticket; its lower half is the value
   std::atomic<std::uint64_t> done{0};

   std::uint32_t value() const noexcept { return static_cast<std::uint32_t>(tried); }
};

enum class Stage : std::uint8_t {
   asked,   // it may be carried out
   checked, // it has ended, and was found to be right; its registers are being stamped
   closed,
};

struct Order {
   std::uint64_t id = 0;
   std::uint64_t tried = 0; // ticket; the lower half of the ones behind it are the values
   std::uint32_t slot = 0;
   std::uint32_t size = 0;
   std::uint32_t rotation = 0;
   std::uint32_t mixed =
      0; // if not 0, the register that is written first, before those of the slot
   std::atomic<bool> isAcknowledged{false};
   std::atomic<bool> isTakenBack{false};
   std::atomic<std::uint64_t> seen{0}; // ticket of when it was known to have written `mixed`
   std::atomic<Stage> stage{Stage::asked};

   std::uint32_t writes() const noexcept { return size + (mixed != 0); }
   std::uint32_t number(std::uint32_t i) const noexcept {
      if (mixed != 0 && i-- == 0) {
         return mixed;
      }
      return firstOrdered + slot * slotSize + (i + rotation) % slotSize;
   }
   std::uint32_t value(std::uint32_t i) const noexcept {
      return static_cast<std::uint32_t>(tried + i);
   }
};

struct ClientNotes {
   std::atomic<std::uint32_t> wishes{0};
   std::atomic<std::uint32_t> orders{0};
   std::array<Wish, mostWishes> wish;
   std::array<Order, mostOrders> order;
};

struct FollowerNotes {
   std::array<std::atomic<std::uint64_t>, mostRegisters> told; // value + 1, 0 if there is none
};

struct Counts {
   std::atomic<std::uint64_t> wishes{0};
   std::atomic<std::uint64_t> orders{0};
   std::atomic<std::uint64_t> takenBack{0};
   std::atomic<std::uint64_t> orderedWrites{0};
   std::atomic<std::uint64_t> incomplete{0};
   std::atomic<std::uint64_t> oneMore{0};
   std::atomic<std::uint64_t> told{0};
   std::uint64_t rounds = 0, generations = 0, renewals = 0;
   std::uint64_t clientKills = 0, followerKills = 0, allKilled = 0;
   std::array<std::uint64_t, 8> agentKills{}; // by phase; the last one: nothing said yet
};

struct Notes {
   std::atomic<std::uint64_t> ticket{1};
   std::atomic<bool> stop{false};
   std::atomic<bool> end{false};
   std::array<ClientNotes, clients> client;
   std::array<FollowerNotes, followers> follower;
   std::array<std::atomic<std::uint32_t>, slots> stamp;
   // What registers that are wished for held when the dust had settled last.
   std::array<std::uint32_t, mostRegisters> settled{};
   Counts counts;
};

class Torment {
public:
   Torment(const ShadowBoard& board, const std::string& agentProgram, std::string control,
           std::uint32_t seed)
      : _board(board), _fence(board.registers() - 1), _control(std::move(control)), _random(seed),
        _agent(board, agentProgram) {
      check(board.registers() <= mostRegisters && board.registers() > firstIdle + 1, "registers");
      if (board.isWired()) {
         _wire = std::make_unique<WireLog>(board.wireLogPath());
      } else {
         _mapped = std::make_unique<MappedHardware>(board.hardwarePath(), board.registers());
      }
   }

   void run(Clock::time_point deadline);
   void report() const;

private:
   // In the clients.
   void _work(unsigned me, std::uint32_t seed);
   void _wish(ShadowTables& tables, unsigned me, std::mt19937& random);
   void _order(ShadowTables& tables, unsigned me, unsigned slot, std::mt19937& random);
   void _lookAfter(ShadowTables& tables, Order& order);
   void _follow(unsigned me);

   // In all.
   void _examine(ShadowTables& tables, Order& order);
   std::uint32_t _claimed(ShadowTables& tables, Order& order);
   std::uint32_t _writtenInFile(const Order& order) const;
   std::uint32_t _writtenOnWire(const Order& order);
   void _close(Order& order);
   std::uint64_t _tickets(std::uint64_t count = 1) { return _notes->ticket.fetch_add(count); }

   // In the parent.
   void _chaos();
   void _aim();
   bool _isOperationBegun();
   void _killAgent();
   void _killClient(unsigned which);
   void _killFollower(unsigned which);
   void _startMissing();
   void _settle();
   void _spoil();
   void _checkRegister(ShadowTables& tables, std::uint32_t number);
   void _checkOrders(ShadowTables& tables);
   void _forgetOutcomes(ShadowTables& tables);
   void _checkFollowers(ShadowTables& tables);
   void _checkTables();
   std::uint32_t _hardware(std::uint32_t number) const {
      return _wire ? _wire->value(number) : _mapped->value(number);
   }
   bool _isWished(std::uint32_t number) const {
      return number < wishedRegisters || (number >= firstMixed && number < firstIdle) ||
             number == _fence;
   }

   const ShadowBoard& _board;
   const std::uint32_t _fence;
   const std::string _control;
   std::mt19937 _random;
   const Shared<Notes> _notes;
   std::unique_ptr<WireLog> _wire;
   std::unique_ptr<MappedHardware> _mapped;
   AgentProcess _agent;
   std::array<pid_t, clients> _clients{};
   std::array<pid_t, followers> _followers{};
   std::uint32_t _lastRequest = 0;
   std::size_t _wireChecked = 0; // accesses that belong to rounds before
   std::map<std::pair<std::uint32_t, std::uint32_t>, std::vector<std::size_t>> _wireWrites;
   std::set<std::pair<std::uint32_t, std::uint32_t>> _awaited; // first writes of operations
   std::uint64_t _killsSettled = 0;
   std::uint64_t _oneMoreSettled = 0;
};

// -- clients -------------------------------------------------------------------------------------

void Torment::_work(unsigned me, std::uint32_t seed) {
   std::mt19937 random(seed);
   ShadowTables tables(_board);
   ClientNotes& notes = _notes->client[me];
   // Some are in a hurry, others not.
   const unsigned pause = std::array{0u, 5u, 50u, 300u}[random() % 4];
   std::array<Order*, slotsOfClient> current{};
   for (std::uint32_t i = 0; i < notes.orders.load(); ++i) {
      if (Order& order = notes.order[i]; order.stage.load() != Stage::closed) {
         current[order.slot % slotsOfClient] = &order; // from the life before
      }
   }
   for (unsigned turn = 0; !_notes->stop.load(); ++turn) {
      if (notes.wishes.load() < mostWishes) {
         _wish(tables, me, random);
      } else {
         ::usleep(100);
      }
      if (turn % 2 == 0) {
         const unsigned slot = random() % slotsOfClient;
         if (current[slot]) {
            _lookAfter(tables, *current[slot]);
            if (current[slot]->stage.load() == Stage::closed) {
               current[slot] = nullptr;
            }
         } else if (notes.orders.load() < mostOrders) {
            _order(tables, me, me * slotsOfClient + slot, random);
            current[slot] = &notes.order[notes.orders.load() - 1];
         }
      }
      if (turn % 64 == 0) {
         tables.loop.poll();
      }
      if (pause != 0) {
         ::usleep(random() % pause);
      }
   }
}

void Torment::_wish(ShadowTables& tables, unsigned me, std::mt19937& random) {
   ClientNotes& notes = _notes->client[me];
   const std::uint32_t at = notes.wishes.load();
   Wish& wish = notes.wish[at];
   const std::uint32_t which = random() % (wishedRegisters + mixedRegisters);
   // A few registers are everybody's favourites.
   wish.number = random() % 4 == 0         ? which % 4
                 : which < wishedRegisters ? which
                                           : firstMixed + which - wishedRegisters;
   wish.done.store(0);
   wish.tried = _tickets();
   notes.wishes.store(at + 1);
   tables.client.wishIs(registerName(wish.number), wish.value());
   wish.done.store(_tickets());
   ++_notes->counts.wishes;
}

void Torment::_order(ShadowTables& tables, unsigned me, unsigned slot, std::mt19937& random) {
   ClientNotes& notes = _notes->client[me];
   const std::uint32_t at = notes.orders.load();
   Order& order = notes.order[at];
   order.id = Platform::UniqueId::fresh().value();
   order.slot = slot;
   order.size = 1 + random() % slotSize;
   order.rotation = random() % slotSize;
   order.mixed = random() % 3 == 0 ? firstMixed + random() % mixedRegisters : 0;
   order.isAcknowledged.store(false);
   order.isTakenBack.store(false);
   order.seen.store(0);
   order.stage.store(Stage::asked);
   order.tried = _tickets(order.writes());
   OrderedRegisterOp op{Platform::UniqueId(order.id)};
   op.opSizeIs(static_cast<std::uint8_t>(order.writes()));
   for (std::uint32_t i = 0; i < order.writes(); ++i) {
      op.regKeyIs(OpIndex(i), CoreRegisterKey(order.number(i)));
      op.regValueIs(OpIndex(i), order.value(i));
   }
   notes.orders.store(at + 1);
   tables.ops.table.put(op);
   order.isAcknowledged.store(true);
   ++_notes->counts.orders;
   if (random() % 16 == 0) {
      order.isTakenBack.store(true);
      tables.ops.table.del(op.key());
      ++_notes->counts.takenBack;
   }
}

// Something taken back may all the same be under way, so that is looked at when all is over.
void Torment::_lookAfter(ShadowTables& tables, Order& order) {
   if (order.stage.load() == Stage::checked) {
      _close(order);
   } else if (!order.isTakenBack.load() && !_wire &&
              !tables.ops.table.has(Platform::UniqueId(order.id))) {
      _examine(tables, order);
      _close(order);
   } else if (!order.isTakenBack.load() && _wire &&
              !tables.ops.table.has(Platform::UniqueId(order.id))) {
      order.stage.store(Stage::closed); // the wire log is for the parent to read
   }
}

void Torment::_follow(unsigned me) {
   const auto registers = _board.registerFile();
   Platform::EventLoop loop;
   Platform::Tables::TableService service(loop, _board.tables());
   ShadowClient client(loop, service, ShadowBoard::core, registers);
   FollowerNotes& notes = _notes->follower[me];
   std::uint64_t told = 0;
   const auto following = client.follow([&](const std::string& name, auto value) {
      if (_control == "untold" && ++told % 64 == 0) {
         return;
      }
      notes.told[registers->findRegister(name)->address].store(value ? *value + std::uint64_t{1}
                                                                     : 0);
      ++_notes->counts.told;
   });
   for (std::uint32_t i = 0; i < _board.registers(); ++i) {
      const auto value = client.value(i);
      notes.told[i].store(value ? *value + std::uint64_t{1} : 0);
   }
   while (!_notes->end.load()) {
      loop.runFor(std::chrono::milliseconds(20));
   }
}

// -- what has come of an operation ---------------------------------------------------------------

/// How many of the writes to the slot the outcome claims.
std::uint32_t Torment::_claimed(ShadowTables& tables, Order& order) {
   const auto outcome = tables.outcomes.table.get(Platform::UniqueId(order.id));
   if (!outcome) {
      check(!order.isAcknowledged.load() || order.isTakenBack.load(),
            "an acknowledged operation has no outcome");
      return 0;
   }
   const std::uint32_t count = outcome->regKeyCount();
   check(outcome->opSize() == order.writes() && count <= order.writes() &&
            outcome->regValueCount() == count,
         "an outcome does not have the size of its operation");
   for (std::uint32_t i = 0; i < count; ++i) {
      check(outcome->regKey(OpIndex(i)).address() == order.number(i) &&
               outcome->regValue(OpIndex(i)) == order.value(i),
            "an outcome has other writes than its operation");
   }
   if (order.mixed == 0) {
      return count;
   }
   if (count > 0) {
      order.seen.store(_tickets());
   }
   return count > 0 ? count - 1 : 0;
}

std::uint32_t Torment::_writtenInFile(const Order& order) const {
   const std::uint32_t stamp = _notes->stamp[order.slot].load();
   std::uint32_t written = 0;
   for (std::uint32_t i = order.mixed != 0; i < order.writes(); ++i) {
      const std::uint32_t found = _mapped->value(order.number(i));
      const std::uint32_t before = order.mixed != 0 ? i - 1 : i;
      if (found == order.value(i)) {
         check(written == before, "what was written of an operation is not the front of it");
         ++written;
      } else {
         check(found == stamp,
               "a register of an operation holds what nobody ordered: " + hex(found) + ", not " +
                  hex(order.value(i)) + " or " + hex(stamp));
      }
   }
   // Those of the slot that it leaves alone.
   for (std::uint32_t i = order.size; i < slotSize; ++i) {
      const std::uint32_t number =
         firstOrdered + order.slot * slotSize + (i + order.rotation) % slotSize;
      check(_mapped->value(number) == stamp, "an operation was repeated after its end");
   }
   return written;
}

std::uint32_t Torment::_writtenOnWire(const Order& order) {
   std::uint32_t written = 0;
   std::size_t last = 0;
   bool isOver = false;
   for (std::uint32_t i = order.mixed != 0; i < order.writes(); ++i) {
      const auto found = _wireWrites.find({order.number(i), order.value(i)});
      if (found == _wireWrites.end()) {
         isOver = true;
         continue;
      }
      check(!isOver, "what was written of an operation is not the front of it");
      check(found->second.size() == 1, "a write of an operation was repeated");
      check(found->second.front() > last || written == 0, "an operation was not made in its order");
      last = found->second.front();
      ++written;
      _wireWrites.erase(found);
   }
   return written;
}

void Torment::_examine(ShadowTables& tables, Order& order) {
   const std::uint32_t claimed = _claimed(tables, order);
   const std::uint32_t written = _wire ? _writtenOnWire(order) : _writtenInFile(order);
   check(written == claimed || written == claimed + 1,
         "an operation made " + std::to_string(written) + " writes, and its outcome claims " +
            std::to_string(claimed));
   _notes->counts.oneMore += written > claimed;
   _notes->counts.orderedWrites += written;
   _notes->counts.incomplete += written < order.size;
   order.stage.store(Stage::checked);
}

void Torment::_close(Order& order) {
   if (!_wire) {
      // Another value each time, so that it is no value of an operation, nor the last one's stamp.
      const auto stamp = static_cast<std::uint32_t>(_tickets());
      _notes->stamp[order.slot].store(stamp);
      for (std::uint32_t i = 0; i < slotSize; ++i) {
         _mapped->valueIs(firstOrdered + order.slot * slotSize + i, stamp);
      }
   }
   order.stage.store(Stage::closed);
}

// -- chaos ---------------------------------------------------------------------------------------

void Torment::_startMissing() {
   if (!_agent.runs()) {
      _agent.start();
   }
   for (unsigned i = 0; i < clients && !_notes->stop.load(); ++i) {
      if (_clients[i] == 0) {
         const std::uint32_t seed = _random();
         _clients[i] = child([&, i, seed] { _work(i, seed); });
      }
   }
   for (unsigned i = 0; i < followers; ++i) {
      if (_followers[i] == 0) {
         _followers[i] = child([&, i] { _follow(i); });
      }
   }
}

/// Most of what is of interest is short. So some of the deaths are made to meet the filling of the
/// shadow, some what that leads to, and some the first write of an operation.
void Torment::_aim() {
   const auto await = [](std::chrono::microseconds most, const std::function<bool()>& isSo) {
      const auto end = Clock::now() + most;
      while (Clock::now() < end && !isSo()) {
      }
   };
   const unsigned what = _random() % 6;
   if (what == 0) {
      await(std::chrono::milliseconds(200), [&] {
         const auto state = _agent.state();
         return state && state->phase == CorePhase::syncing;
      });
   } else if (what < 4) {
      await(std::chrono::milliseconds(200), [&] {
         const auto state = _agent.state();
         return state && state->ready;
      });
   } else {
      return;
   }
   if (what > 1) {
      await(std::chrono::milliseconds(50), [&] { return _isOperationBegun(); });
      await(std::chrono::microseconds(_random() % 2 * (_random() % 50)), [] { return false; });
      return;
   }
   await(std::chrono::microseconds(_random() % 3000), [] { return false; });
}

/// Whether the first write of an operation has been made since the last call.
bool Torment::_isOperationBegun() {
   std::set<std::pair<std::uint32_t, std::uint32_t>> pending;
   for (const ClientNotes& notes : _notes->client) {
      const std::uint32_t orders = notes.orders.load();
      for (std::uint32_t i = orders - std::min(orders, 2 * slotsOfClient); i < orders; ++i) {
         const Order& order = notes.order[i];
         if (order.stage.load() == Stage::asked) {
            const std::uint32_t first = order.mixed != 0;
            pending.emplace(order.number(first), order.value(first));
         }
      }
   }
   bool isBegun = false;
   if (_wire) {
      const std::size_t known = _wire->accesses().size();
      _wire->update();
      for (std::size_t i = known; i < _wire->accesses().size(); ++i) {
         const auto& access = _wire->accesses()[i];
         isBegun = isBegun || (access.isWrite && pending.contains({access.number, access.value}));
      }
   } else {
      for (const auto& write : std::exchange(_awaited, pending)) {
         isBegun = isBegun || _mapped->value(write.first) == write.second;
      }
      std::erase_if(_awaited,
                    [&](const auto& write) { return _mapped->value(write.first) == write.second; });
   }
   return isBegun;
}

void Torment::_killAgent() {
   if (!_agent.runs()) {
      return;
   }
   _aim();
   _agent.signal(SIGSTOP); // so that what is said of its phase is true
   const auto state = _agent.state();
   _agent.kill();
   Counts& counts = _notes->counts;
   ++counts.agentKills[state ? static_cast<std::size_t>(state->phase) : 7];
   counts.generations += state ? state->generation : 0;
}

void Torment::_killClient(unsigned which) {
   ::kill(_clients[which], SIGKILL);
   const int status = ended(std::exchange(_clients[which], 0));
   check(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL,
         "a client ended by itself, status " + std::to_string(status));
   ++_notes->counts.clientKills;
}

void Torment::_killFollower(unsigned which) {
   ::kill(_followers[which], SIGKILL);
   const int status = ended(std::exchange(_followers[which], 0));
   check(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL,
         "a follower ended by itself, status " + std::to_string(status));
   ++_notes->counts.followerKills;
}

void Torment::_chaos() {
   const auto end = Clock::now() + std::chrono::milliseconds(100 + _random() % 600);
   while (Clock::now() < end) {
      _startMissing();
      std::this_thread::sleep_for(std::chrono::microseconds(_random() % 20000));
      switch (const unsigned what = _random() % 16; what) {
      case 0: // all
         ++_notes->counts.allKilled;
         _killAgent();
         for (unsigned i = 0; i < clients; ++i) {
            _killClient(i);
         }
         for (unsigned i = 0; i < followers; ++i) {
            _killFollower(i);
         }
         break;
      case 1:
         _killFollower(_random() % followers);
         break;
      case 2:
         if (_agent.state()) { // before it says something it may not know the signal
            _agent.signal(SIGHUP);
            ++_notes->counts.renewals;
         }
         break;
      case 3:
      case 4:
      case 5:
      case 6:
      case 7:
         _killClient(_random() % clients);
         break;
      default:
         _killAgent();
         // The clients go on without it for a while, or hardly notice.
         std::this_thread::sleep_for(std::chrono::microseconds(_random() % 5000));
      }
   }
}

// -- after the dust has settled ------------------------------------------------------------------

void Torment::_settle() {
   for (unsigned i = 0; i < clients; ++i) {
      if (_clients[i] != 0 && _random() % 2 == 0) {
         _killClient(i);
      }
   }
   _notes->stop.store(true);
   for (unsigned i = 0; i < clients; ++i) {
      if (_clients[i] != 0) {
         check(ended(std::exchange(_clients[i], 0)) == 0, "a client failed");
      }
   }
   if (_random() % 2 == 0) {
      _killAgent(); // so that all is in the tables
   }
   _spoil();
   if (!_agent.runs()) {
      _agent.start();
   }
   ShadowTables tables(_board);
   const auto await = [&](const char* what, const std::function<bool()>& isSo) {
      const auto end = Clock::now() + patience;
      while (!tables.loop.runUntil(isSo, std::chrono::milliseconds(2))) {
         _agent.checkLives();
         check(Clock::now() < end, std::string("waited in vain for ") + what);
      }
   };
   await("the agent", [&] {
      const auto state = _agent.state();
      return state && state->ready;
   });
   await("the end of the operations", [&] { return tables.ops.table.keys().empty(); });
   // What is wished now is noticed last: the first time perhaps among all that there is, if the
   // agent has missed changes, and the second time behind that.
   for (int i = 0; i < 2; ++i) {
      const auto fence = static_cast<std::uint32_t>(_tickets());
      tables.client.wishIs(registerName(_fence), fence);
      _notes->settled[_fence] = fence;
      await("a last wish", [&] { return tables.client.value(_fence) == fence; });
   }
   if (_wire) {
      _wire->update();
      const auto& accesses = _wire->accesses();
      for (; _wireChecked < accesses.size(); ++_wireChecked) {
         if (const auto& access = accesses[_wireChecked]; access.isWrite) {
            _wireWrites[{access.number, access.value}].push_back(_wireChecked + 1);
         }
      }
   }
   _checkOrders(tables);
   for (std::uint32_t number = 0; number < _board.registers(); ++number) {
      if (_isWished(number)) {
         _checkRegister(tables, number);
      } else if (number >= firstIdle) {
         check(_hardware(number) == 0, "a register was written that nobody knows of");
      }
   }
   _checkFollowers(tables);
   _checkTables();
   _forgetOutcomes(tables);
   for (ClientNotes& notes : _notes->client) {
      notes.wishes.store(0);
      notes.orders.store(0);
   }
   _wireWrites.clear();
   _notes->stop.store(false);
   ++_notes->counts.rounds;
}

void Torment::_checkRegister(ShadowTables& tables, std::uint32_t number) {
   const std::uint32_t found = _hardware(number);
   const std::string which = registerName(number) + ", which holds " + hex(found) + ": ";
   const auto status = tables.client.value(number);
   check(status == found, which + "the status says otherwise: " + hex(status.value_or(0)));
   const auto wish = tables.client.wish(number);
   check(wish == found || (!wish && number >= firstMixed) || (!wish && found == 0),
         which + "what is wished for is not there: " + hex(wish.value_or(0)));
   // Whose is it, and by when was it made at the latest?
   std::optional<std::uint64_t> until;
   std::uint64_t latest = 0; // the last change that is known to have been made after it was tried
   std::uint32_t latestValue = 0;
   if (_notes->settled[number] == found) {
      until = number == _fence ? never : 0;
   }
   const auto consider = [&](std::uint32_t value, std::uint64_t tried, std::uint64_t done,
                             std::uint64_t bound) {
      if (value == found) {
         until = bound;
      } else if (done != 0 && tried > latest) {
         latest = tried;
         latestValue = value;
      }
   };
   for (const ClientNotes& notes : _notes->client) {
      const std::uint32_t wishes = notes.wishes.load();
      for (std::uint32_t i = 0; i < wishes; ++i) {
         const Wish& each = notes.wish[i];
         if (each.number == number) {
            // One that was not acknowledged was made before the client's next life, or never.
            const std::uint64_t done = each.done.load();
            consider(each.value(), each.tried, done,
                     done != 0        ? done
                     : i + 1 < wishes ? notes.wish[i + 1].tried
                                      : never);
         }
      }
      for (std::uint32_t i = 0; i < notes.orders.load(); ++i) {
         const Order& each = notes.order[i];
         if (each.mixed == number) {
            const std::uint64_t seen = each.seen.load();
            consider(each.value(0), each.tried, seen, seen != 0 ? seen : never);
         }
      }
   }
   check(until.has_value(), which + "nobody ever wished that");
   check(latest <= *until, which + "an acknowledged later one is lost: " + hex(latestValue) + " (" +
                              hex(latest) + " after " + hex(*until) + ")");
   _notes->settled[number] = found;
}

void Torment::_checkOrders(ShadowTables& tables) {
   for (ClientNotes& notes : _notes->client) {
      for (std::uint32_t i = 0; i < notes.orders.load(); ++i) {
         Order& order = notes.order[i];
         if (_wire || order.stage.load() == Stage::asked) {
            _examine(tables, order);
         }
         if (order.stage.load() != Stage::closed) {
            _close(order);
         }
      }
   }
   for (std::uint32_t slot = 0; !_wire && slot < slots; ++slot) {
      for (std::uint32_t i = 0; i < slotSize; ++i) {
         check(_mapped->value(firstOrdered + slot * slotSize + i) == _notes->stamp[slot].load(),
               "an operation was repeated after its end");
      }
   }
   for (const auto& [write, places] : _wireWrites) {
      check(write.first < firstOrdered || write.first >= firstMixed,
            "a register of an operation was written as nobody ordered");
   }
   // Only a death leaves a write that is not told of.
   std::uint64_t kills = 0;
   for (const std::uint64_t each : _notes->counts.agentKills) {
      kills += each;
   }
   const std::uint64_t oneMore = _notes->counts.oneMore.load();
   check(oneMore - std::exchange(_oneMoreSettled, oneMore) <=
            kills - std::exchange(_killsSettled, kills),
         "there are more writes that no outcome claims than agents that died");
}

// An agent keeps as many as it is told to, and one that finds more of them than that at its start
// cannot tell which are the oldest. So there are never that many.
void Torment::_forgetOutcomes(ShadowTables& tables) {
   PlainTable<OrderedRegisterOp> outcomes(tables.service, "core/ops-status", TableRole::writer);
   for (const Platform::UniqueId id : outcomes.table.keys()) {
      outcomes.table.del(id);
   }
}

void Torment::_checkFollowers(ShadowTables& tables) {
   _startMissing();
   for (unsigned i = 0; i < followers; ++i) {
      const auto end = Clock::now() + (_control == "untold" ? std::chrono::seconds(1) : patience);
      for (std::uint32_t number = 0; number < _board.registers(); ++number) {
         const auto value = tables.client.value(number);
         const std::uint64_t wanted = value ? *value + std::uint64_t{1} : 0;
         while (_notes->follower[i].told[number].load() != wanted) {
            check(Clock::now() < end, "a follower was not told of " + registerName(number));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
         }
      }
   }
}

void Torment::_checkTables() {
   for (const char* const name : {"core/config", "core/status", "core/ops", "core/ops-status"}) {
      checkAudit(TableMount(_board.tables(), name, {}), name);
   }
}

/// What the controls do, while nobody looks.
void Torment::_spoil() {
   if (_control.empty() || _control == "untold") {
      return;
   }
   if (_agent.runs()) {
      _killAgent();
   }
   ShadowTables tables(_board);
   const ClientNotes& notes = _notes->client[0];
   if (_control == "lost") {
      // A wish of long ago comes back.
      for (std::uint32_t i = 0; i < notes.wishes.load() / 2; ++i) {
         const Wish& wish = notes.wish[i];
         tables.client.wishIs(registerName(wish.number), wish.value());
      }
   } else if (_control == "foreign") {
      tables.client.wishIs(registerName(7), static_cast<std::uint32_t>(_tickets()));
   } else if (_control == "unwished") {
      // In the hardware, with nothing else knowing of it.
      check(_mapped != nullptr, "this control needs the file");
      _mapped->valueIs(firstIdle, 1);
   } else if (_control == "repeated") {
      for (std::uint32_t i = 0; i < notes.orders.load(); ++i) {
         const Order& order = notes.order[i];
         if (order.stage.load() == Stage::closed) {
            _mapped->valueIs(order.number(order.writes() - 1), order.value(order.writes() - 1));
         }
      }
   } else if (_control == "unclaimed" || _control == "overclaimed") {
      PlainTable<OrderedRegisterOp> outcomes(tables.service, "core/ops-status", TableRole::writer);
      for (std::uint32_t i = 0; i < notes.orders.load(); ++i) {
         const Order& order = notes.order[i];
         if (order.stage.load() == Stage::asked) {
            auto outcome = outcomes.table.get(Platform::UniqueId(order.id));
            if (outcome && _control == "unclaimed") {
               outcomes.table.del(outcome->key());
            } else if (!outcome && _control == "overclaimed") {
               // Whoever finds this has nothing to do any more.
               outcome.emplace(Platform::UniqueId(order.id));
               outcome->opSizeIs(static_cast<std::uint8_t>(order.writes()));
               for (std::uint32_t k = 0; k < order.writes(); ++k) {
                  outcome->regKeyIs(OpIndex(k), CoreRegisterKey(order.number(k)));
                  outcome->regValueIs(OpIndex(k), order.value(k));
               }
               outcomes.table.put(*outcome);
            }
         }
      }
   } else {
      fail("there is no control '" + _control + "'");
   }
}

void Torment::run(Clock::time_point deadline) {
   do {
      _chaos();
      _settle();
   } while (Clock::now() < deadline);
   _notes->stop.store(true);
   _notes->end.store(true);
   for (const pid_t pid : _clients) {
      if (pid != 0) {
         check(ended(pid) == 0, "a client failed");
      }
   }
   for (const pid_t pid : _followers) {
      if (pid != 0) {
         check(ended(pid) == 0, "a follower failed");
      }
   }
   _agent.stop();
}

void Torment::report() const {
   const Counts& counts = _notes->counts;
   const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
   std::uint64_t kills = 0;
   for (const std::uint64_t each : counts.agentKills) {
      kills += each;
   }
   std::printf(
      "%s: %llu rounds; %llu agents killed (%llu that had said nothing, %llu starting, "
      "%llu probing, %llu syncing, %llu ready), %llu clients, %llu followers, %llu times "
      "all; %llu renewals, %llu generations\n",
      _wire ? "wire" : "file", number(counts.rounds), number(kills), number(counts.agentKills[7]),
      number(counts.agentKills[0]), number(counts.agentKills[1]), number(counts.agentKills[2]),
      number(counts.agentKills[3]), number(counts.clientKills), number(counts.followerKills),
      number(counts.allKilled), number(counts.renewals), number(counts.generations));
   std::printf(
      "   %llu wishes acknowledged, %llu changes told; %llu operations, %llu of them taken "
      "back, %llu incomplete, %llu writes of them, %llu not claimed by an outcome; 0 "
      "violations\n",
      number(counts.wishes), number(counts.told), number(counts.orders), number(counts.takenBack),
      number(counts.incomplete), number(counts.orderedWrites), number(counts.oneMore));
}

// -- the program ---------------------------------------------------------------------------------

struct Arguments {
   std::string agent = programPath("tarn-shadowd");
   std::string control;
   std::string inside;    // directory of a board that is simulated around this
   std::string directory; // of who removes it
   bool isWired = true;
   bool isMapped = true;
   bool controls = false;
   std::vector<std::array<std::string, 3>> mutants; // agent, part that shows its fault, the fault
   std::vector<char*> rest;
};

Arguments argumentsOf(int argc, char** argv) {
   Arguments result;
   result.rest.push_back(argv[0]);
   for (int i = 1; i < argc; ++i) {
      const std::string name = argv[i];
      if (name == "--controls") {
         result.controls = true;
      } else if (name == "--mutant" && i + 3 < argc) {
         result.mutants.push_back({argv[i + 1], argv[i + 2], argv[i + 3]});
         i += 3;
      } else if (name == "--only" && i + 1 < argc) {
         const std::string part = argv[++i];
         result.isWired = part == "wire";
         result.isMapped = part == "file";
      } else if (name == "--agent" && i + 1 < argc) {
         result.agent = argv[++i];
      } else if (name == "--control" && i + 1 < argc) {
         result.control = argv[++i];
      } else if (name == "--directory" && i + 1 < argc) {
         result.directory = argv[++i];
      } else if (name == "--inside" && i + 1 < argc) {
         result.inside = argv[++i];
      } else {
         result.rest.push_back(argv[i]);
      }
   }
   return result;
}

constexpr const char* leftOut = "left out, as no board can be simulated here";
constexpr std::uint32_t mappedRegisters = 1500; // so many that a sync takes a while
constexpr std::uint32_t wiredRegisters = 400;

Clock::time_point after(double seconds) {
   return Clock::now() + std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::duration<double>(seconds));
}

void tormentMapped(const Arguments& arguments, const Options& options, double seconds) {
   std::optional<Torture::Directory> directory;
   const ShadowBoard board(arguments.directory.empty() ? directory.emplace().path()
                                                       : arguments.directory,
                           mappedRegisters, false);
   Torment torment(board, arguments.agent, arguments.control, options.seed);
   torment.run(after(seconds));
   torment.report();
}

/// The same in a simulated board.
void tormentWired(const Arguments& arguments, const Options& options, double seconds) {
   std::optional<Torture::Directory> own;
   const std::string directory =
      arguments.directory.empty() ? own.emplace().path() : arguments.directory;
   const ShadowBoard board(directory, wiredRegisters, true);
   std::fflush(nullptr);
   const std::string simulator = programPath("tarnsim") + " --board " + board.boardPath();
   if (std::system((simulator + " -- true 2>/dev/null").c_str()) != 0) {
      std::printf("%s\n", leftOut);
      return;
   }
   const std::string command = simulator + " --wire-log " + board.wireLogPath() + " -- " +
                               programPath("torture_shadow_kill") + " --inside " + directory +
                               " --agent " + arguments.agent + " --seconds " +
                               std::to_string(seconds) + " --seed " + std::to_string(options.seed) +
                               (arguments.control.empty() ? "" : " --control " + arguments.control);
   check(std::system(command.c_str()) == 0, "the part on the wire");
}

/// What is spoilt has to be found, and as what it is: the check itself is checked.
void runControls(const Arguments& arguments, const Options& options) {
   struct Control {
      std::string options;
      std::string finds;
   };
   std::vector<Control> all{
      {"--control lost", "an acknowledged later one is lost"},
      {"--control foreign", "nobody ever wished that"},
      {"--control unwished", "a register was written that nobody knows of"},
      {"--control repeated",
       "an operation was repeated after its end|an operation holds what nobody ordered"},
      {"--control unclaimed", "an acknowledged operation has no outcome|and its outcome claims 0"},
      {"--control overclaimed", "and its outcome claims"},
      {"--control untold", "a follower was not told of"},
   };
   for (Control& each : all) {
      each.options += " --only file";
   }
   for (const auto& [program, part, finds] : arguments.mutants) {
      all.push_back({"--agent " + program + " --only " + part, finds});
   }
   for (const Control& each : all) {
      const auto begin = Clock::now();
      const Torture::Directory directory; // which what fails would leave behind
      const std::string command = programPath("torture_shadow_kill") + " --directory " +
                                  directory.path() + " --seconds " +
                                  std::to_string(options.seconds) + " --seed " +
                                  std::to_string(options.seed) + " " + each.options + " 2>&1";
      std::fflush(nullptr);
      FILE* const pipe = ::popen(command.c_str(), "r");
      check(pipe != nullptr, "popen");
      std::string said;
      for (char part[4096]; const std::size_t size = std::fread(part, 1, sizeof part, pipe);) {
         said.append(part, size);
      }
      const int status = ::pclose(pipe);
      std::size_t found = said.npos;
      for (std::istringstream ways(each.finds); found == said.npos && ways;) {
         std::string way;
         std::getline(ways, way, '|');
         found = way.empty() ? said.npos : said.find(way);
      }
      if (said.find(leftOut) != said.npos) {
         std::printf("%s: %s\n", each.options.c_str(), leftOut);
         continue;
      }
      check(WIFEXITED(status) && WEXITSTATUS(status) == 1 && found != said.npos,
            each.options + " was not found, but: " + said);
      std::printf("found %s in %.1f s: %s\n", each.options.c_str(),
                  std::chrono::duration<double>(Clock::now() - begin).count(),
                  said.substr(said.find("FAILED: ")).c_str());
   }
}

} // namespace

int main(int argc, char** argv) {
   Arguments arguments = argumentsOf(argc, argv);
   const Options options =
      Options::of(static_cast<int>(arguments.rest.size()), arguments.rest.data());
   if (arguments.controls) {
      runControls(arguments, options);
      return 0;
   }
   if (!arguments.inside.empty()) {
      const ShadowBoard board(arguments.inside, wiredRegisters, true);
      Torment torment(board, arguments.agent, arguments.control, options.seed);
      torment.run(options.deadline());
      torment.report();
      return 0;
   }
   const double part =
      arguments.isWired && arguments.isMapped ? options.seconds / 2 : options.seconds;
   if (arguments.isMapped) {
      tormentMapped(arguments, options, part);
   }
   if (arguments.isWired) {
      tormentWired(arguments, options, part);
   }
   return 0;
}
