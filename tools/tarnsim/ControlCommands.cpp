#include "tools/tarnsim/ControlCommands.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <limits>
#include <stdexcept>

#include <fmt/format.h>

#include "board/NearNames.h"
#include "board/Number.h"

namespace TarnSim {

namespace {

struct Usage {
   std::string_view name;
   std::string_view arguments;
   std::size_t least; // arguments
   std::size_t most;
};

constexpr std::array<Usage, 12> usages = {{
   {"help", "", 0, 0},
   {"devices", "", 0, 0},
   {"get", "DEVICE REGISTER", 2, 2},
   {"set", "DEVICE REGISTER VALUE", 3, 3},
   {"fault", "DEVICE KIND [direction=read|write|any] [first=N] [count=N] [mask=N] [length=N]", 2,
    7},
   {"faults", "DEVICE", 1, 1},
   {"clear", "DEVICE", 1, 1},
   {"delay", "DEVICE MICROSECONDS", 2, 2},
   {"lose", "DEVICE", 1, 1},
   {"return", "DEVICE", 1, 1},
   {"journal", "DEVICE", 1, 1},
   {"forget", "DEVICE", 1, 1},
}};

const Usage* usageOf(std::string_view name) {
   for (const Usage& usage : usages) {
      if (usage.name == name) {
         return &usage;
      }
   }
   return nullptr;
}

/// Which commands one may have meant, as the end of a message.
std::string nearCommand(std::string_view word) {
   ::Board::NearNames near(word);
   for (const Usage& usage : usages) {
      near.add(usage.name);
   }
   return ::Board::didYouMean(near.nearest());
}

/// What a client sent, as it may go back to him.
std::string shown(std::string_view text) {
   constexpr std::size_t most = 60;
   std::string shown;
   for (const char c : text.substr(0, most)) {
      shown += c >= ' ' && c <= '~' ? c : '?';
   }
   return text.size() > most ? shown + "..." : shown;
}

std::vector<std::string_view> wordsOf(std::string_view line) {
   constexpr std::string_view blanks = " \t\r";
   std::vector<std::string_view> words;
   while (true) {
      const std::size_t begin = line.find_first_not_of(blanks);
      if (begin == std::string_view::npos) {
         return words;
      }
      line.remove_prefix(begin);
      const std::string_view word = line.substr(0, line.find_first_of(blanks));
      words.push_back(word);
      line.remove_prefix(word.size());
   }
}

std::uint64_t number(std::string_view text, std::uint64_t most) {
   const auto number = ::Board::numberFrom(text);
   if (!number) {
      throw std::invalid_argument(fmt::format("'{}' is no number", shown(text)));
   }
   if (*number > most) {
      throw std::invalid_argument(fmt::format("{} is more than {:#x}", shown(text), most));
   }
   return *number;
}

std::uint32_t registerOf(const SimulatedDevice& device, std::string_view word) {
   if (const auto address = device.addressOf(word)) {
      return *address;
   }
   if (!::Board::numberFrom(word)) {
      throw std::invalid_argument(
         fmt::format("{} has no register '{}'", device.name(), shown(word)));
   }
   return static_cast<std::uint32_t>(number(word, std::numeric_limits<std::uint32_t>::max()));
}

std::string lineOf(const Hardware::Fault& fault) {
   std::string line =
      fmt::format("{} direction={} first={} count={}", faultKindToString(fault.kind),
                  faultDirectionToString(fault.direction), fault.first, fault.count);
   if (fault.kind == Hardware::FaultKind::wrongBytes) {
      fmt::format_to(std::back_inserter(line), " mask={:#x}", fault.xorMask);
   }
   if (fault.kind == Hardware::FaultKind::shortRead) {
      fmt::format_to(std::back_inserter(line), " length={}", fault.length);
   }
   return line;
}

} // namespace

bool isControlCommand(std::string_view word) {
   return usageOf(word) != nullptr;
}

ControlCommands::Answer ControlCommands::run(std::string_view line) {
   try {
      const Words words = wordsOf(line);
      if (words.empty()) {
         throw std::invalid_argument("there is no command; try 'help'");
      }
      const Usage* usage = usageOf(words[0]);
      if (!usage) {
         const std::string near = nearCommand(words[0]);
         throw std::invalid_argument(fmt::format("there is no command '{}'{}", shown(words[0]),
                                                 near.empty() ? "; try 'help'" : near));
      }
      if (words.size() - 1 < usage->least || words.size() - 1 > usage->most) {
         throw std::invalid_argument(fmt::format("usage: {} {}", usage->name, usage->arguments));
      }
      return _run(words);
   } catch (const std::exception& error) {
      return {false, {error.what()}};
   }
}

SimulatedDevice& ControlCommands::_device(const Words& words) const {
   SimulatedDevice* device = _simulation.device(words[1]);
   if (!device) {
      ::Board::NearNames near(words[1]);
      for (const auto& each : _simulation.devices()) {
         near.add(each->name());
      }
      throw std::invalid_argument(fmt::format("there is no device '{}'{}", shown(words[1]),
                                              ::Board::didYouMean(near.nearest())));
   }
   return *device;
}

Hardware::FaultPlan& ControlCommands::_faults(const Words& words) const {
   Hardware::FaultPlan* faults = _device(words).faults();
   if (!faults) {
      throw std::invalid_argument("accesses to a PCI resource go past tarnsim: only 'lose' and "
                                  "'return' are possible");
   }
   return *faults;
}

Hardware::Fault ControlCommands::_fault(const Words& words) {
   constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
   Hardware::Fault fault;
   const auto kind = Hardware::faultKindFromString(words[2]);
   if (!kind) {
      throw std::invalid_argument(
         fmt::format("'{}' is no kind of fault: nak, eio, timeout, short, wrong", shown(words[2])));
   }
   fault.kind = *kind;
   for (std::size_t i = 3; i < words.size(); ++i) {
      const std::size_t equals = words[i].find('=');
      const std::string_view key = words[i].substr(0, equals);
      const std::string_view value =
         equals == std::string_view::npos ? std::string_view() : words[i].substr(equals + 1);
      if (key == "direction") {
         const auto direction = Hardware::faultDirectionFromString(value);
         if (!direction) {
            throw std::invalid_argument(
               fmt::format("'{}' is no direction: any, read, write", shown(value)));
         }
         fault.direction = *direction;
      } else if (key == "first") {
         fault.first = number(value, most);
         if (fault.first == 0) {
            throw std::invalid_argument("accesses count from 1");
         }
      } else if (key == "count") {
         fault.count = number(value, most);
      } else if (key == "mask") {
         fault.xorMask = static_cast<std::uint8_t>(number(value, 0xff));
      } else if (key == "length") {
         fault.length = number(value, 0xffff);
      } else {
         throw std::invalid_argument(fmt::format("a fault has no '{}'", shown(words[i])));
      }
   }
   return fault;
}

ControlCommands::Answer ControlCommands::_run(const Words& words) {
   Answer answer;
   const std::string_view command = words[0];
   if (command == "help") {
      for (const Usage& usage : usages) {
         answer.lines.push_back(
            fmt::format("{}{}{}", usage.name, usage.arguments.empty() ? "" : " ", usage.arguments));
      }
   } else if (command == "devices") {
      for (const auto& device : _simulation.devices()) {
         answer.lines.push_back(fmt::format("{}: {}{}", device->name(), device->place(),
                                            device->lost() ? ", lost" : ""));
      }
   } else if (command == "get") {
      const SimulatedDevice& device = _device(words);
      answer.lines.push_back(fmt::format("{:#x}", device.registerAt(registerOf(device, words[2]))));
   } else if (command == "set") {
      SimulatedDevice& device = _device(words);
      device.registerIs(
         registerOf(device, words[2]),
         static_cast<std::uint32_t>(number(words[3], std::numeric_limits<std::uint32_t>::max())));
   } else if (command == "fault") {
      Hardware::FaultPlan& faults = _faults(words);
      constexpr std::size_t most = 1000;
      if (faults.faults().size() >= most) {
         throw std::invalid_argument(fmt::format("there are {} faults already", most));
      }
      faults.add(_fault(words));
   } else if (command == "faults") {
      for (const Hardware::Fault& fault : _faults(words).faults()) {
         answer.lines.push_back(lineOf(fault));
      }
   } else if (command == "clear") {
      _faults(words).clear();
   } else if (command == "delay") {
      constexpr std::uint64_t anHour = 3'600'000'000;
      _faults(words).delayIs(std::chrono::microseconds(number(words[2], anHour)));
   } else if (command == "lose" || command == "return") {
      _device(words).lostIs(command == "lose");
   } else if (command == "journal") {
      answer.lines = _device(words).journal();
   } else if (command == "forget") {
      _device(words).journalClear();
   }
   return answer;
}

} // namespace TarnSim
