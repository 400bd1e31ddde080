#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "TarnRegFile/Types.h"
#include "tools/tarnreg/NumberFormat.h"

namespace TarnReg {

/// What `tarnreg top` shows: registers, what they hold and held before, line by line. Knows no
/// terminal and no device.
class TopView {
public:
   /// How it is drawn.
   struct Style {
      bool unicode = true; ///< plots of block characters, else of ASCII
      bool color = true;   ///< what changed is inverse and failures are red, else * and ! say so
      NumberBase base = NumberBase::hex;
   };

   /// As many rounds are kept for the plot.
   static constexpr std::size_t longest = 512;

   TopView(const std::vector<const TarnRegFile::HardwareRegister*>& registers, Style style);

   /// Says what was found of the register at `index` in the round under way.
   void valueIs(std::size_t index, std::uint32_t value);
   void failureIs(std::size_t index, const std::string& reason);

   /// Lines of a screen of `columns`: one for each register from `first` on, `rows` at most. None
   /// is longer than `columns`.
   std::vector<std::string> lines(std::size_t first, std::size_t rows, std::size_t columns) const;

   std::size_t size() const noexcept { return _rows.size(); }

   /// How many registers could not be read the last time.
   std::size_t failures() const noexcept;

private:
   struct Row {
      std::string name;
      std::uint32_t width;
      std::deque<std::optional<std::uint32_t>> history; // the last one is of the last round
      bool hasChanged = false;
      std::string error;
   };

   std::string _line(const Row& row, std::size_t columns) const;
   std::string _plot(const Row& row, std::size_t columns) const;
   static void _append(Row& row, std::optional<std::uint32_t> value);

   Style _style;
   std::size_t _nameWidth = 0;
   std::size_t _valueWidth = 0;
   std::vector<Row> _rows;
};

/// `text` cut off at `columns`, and filled up to them with blanks; characters of two columns, of
/// none and of several bytes are counted as a terminal does.
std::string fitted(const std::string& text, std::size_t columns);

} // namespace TarnReg
