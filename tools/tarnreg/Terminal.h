#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace TarnReg {

/// The terminal of standard input and output, as a screen of its own with keys that come one by
/// one; as it was before at the end of this object, and also when a signal ends or stops the
/// process. There may be one at a time.
///
/// It takes control sequences that every terminal of today knows, and the kernel's terminal
/// settings; a library that knows others, and their windows and colours, would be more to install
/// for nothing that is needed here.
class Terminal {
public:
   enum class Key { none, quit, pause, up, down, pageUp, pageDown, home, end, redraw };

   /// Whether standard input and output are a terminal that can show a screen.
   static bool isThere();

   Terminal();
   ~Terminal();
   Terminal(const Terminal&) = delete;
   Terminal& operator=(const Terminal&) = delete;

   struct Size {
      std::size_t rows;
      std::size_t columns;
   };
   Size size() const;

   /// Draws the screen anew.
   void show(const std::vector<std::string>& lines) const;

   /// The next key; none when none comes in time, redraw when the screen is another one by now, and
   /// quit when there is nobody any more.
   Key key(std::chrono::steady_clock::duration patience) const;
};

} // namespace TarnReg
