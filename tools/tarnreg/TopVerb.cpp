#include "tools/tarnreg/TopVerb.h"

#include <algorithm>

#include <fmt/format.h>

#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/ReadAhead.h"
#include "tools/tarnreg/Selection.h"

namespace TarnReg {

namespace {

using Clock = std::chrono::steady_clock;
using Key = Terminal::Key;

/// One session at the screen.
class Top {
public:
   Top(Device& device, const Selection& selection, const TopOptions& options)
      : _device(device), _selection(selection), _options(options), _view(selection, options.style) {
   }

   void run() {
      Clock::time_point next = Clock::now();
      while (!_hasSeenEnough) {
         if (!_isPaused && Clock::now() >= next) {
            // From its beginning on, unless it takes longer than the interval.
            next = Clock::now() + _options.interval;
            _round();
         }
         _draw();
         _answer(_terminal.key(_isPaused ? std::chrono::hours(1) : next - Clock::now()));
      }
   }

private:
   void _round() {
      ReadAhead values(_device, _selection);
      for (std::size_t i = 0; i < _selection.size() && !_hasSeenEnough; ++i) {
         try {
            _view.valueIs(i, values.next());
         } catch (const AccessError& error) {
            _view.failureIs(i, error.what());
         }
         // A slow device must not make it deaf.
         _answer(_terminal.key(Clock::duration::zero()));
      }
      ++_rounds;
   }

   std::size_t _rowsForRegisters() const {
      const std::size_t rows = _terminal.size().rows;
      return rows > 2 ? rows - 2 : 1;
   }

   void _answer(Key key) {
      const std::size_t page = _rowsForRegisters();
      const std::size_t most = _view.size() > page ? _view.size() - page : 0;
      switch (key) {
      case Key::quit:
         _hasSeenEnough = true;
         break;
      case Key::pause:
         _isPaused = !_isPaused;
         break;
      case Key::up:
         _first -= std::min<std::size_t>(_first, 1);
         break;
      case Key::down:
         ++_first;
         break;
      case Key::pageUp:
         _first -= std::min(_first, page);
         break;
      case Key::pageDown:
         _first += page;
         break;
      case Key::home:
         _first = 0;
         break;
      case Key::end:
         _first = most;
         break;
      case Key::none:
      case Key::redraw:
         break;
      }
      _first = std::min(_first, most);
   }

   void _draw() {
      const Terminal::Size size = _terminal.size();
      const std::size_t failures = _view.failures();
      const double interval = std::chrono::duration<double>(_options.interval).count();
      const std::string head = fmt::format(
         "{}  {} registers, every {} s, round {}{}{}", printable(_options.title), _view.size(),
         interval, _rounds, failures == 0 ? "" : fmt::format(", {} cannot be read", failures),
         _isPaused ? ", paused" : "");
      const std::size_t page = _rowsForRegisters();
      std::vector<std::string> lines{fitted(head, size.columns)};
      for (std::string& line : _view.lines(_first, page, size.columns)) {
         lines.push_back(std::move(line));
      }
      const std::string scroll = _view.size() > page
                                    ? fmt::format("   arrows scroll: {} to {}", _first + 1,
                                                  std::min(_first + page, _view.size()))
                                    : "";
      if (size.rows > 2) {
         lines.push_back(fitted("q quits   p pauses" + scroll, size.columns));
      }
      lines.resize(std::min(lines.size(), size.rows));
      _terminal.show(lines);
   }

   Device& _device;
   const Selection& _selection;
   const TopOptions& _options;
   TopView _view;
   Terminal _terminal;
   std::size_t _first = 0; // register in the first line
   std::size_t _rounds = 0;
   bool _isPaused = false;
   bool _hasSeenEnough = false;
};

} // namespace

void topRegisters(Device& device, const std::vector<std::string>& patterns,
                  const TopOptions& options, Report& report) {
   device.requireReadable();
   const Selection selection = selectAll(device, patterns, report);
   if (report.code() == ExitCode::ok && !selection.empty()) {
      Top(device, selection, options).run();
   }
}

} // namespace TarnReg
