#include "tools/tarnreg/TopView.h"

#include <algorithm>
#include <array>
#include <cwchar>
#include <string_view>

#include "tools/tarnreg/Printable.h"

namespace TarnReg {

namespace {

constexpr std::array<std::string_view, 8> blocks = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array<std::string_view, 8> letters = {"_", ".", "-", ":", "=", "+", "*", "#"};

} // namespace

std::string fitted(const std::string& text, std::size_t columns) {
   std::string out;
   std::size_t used = 0;
   std::mbstate_t state{};
   for (std::size_t i = 0; i < text.size();) {
      wchar_t character = 0;
      const std::size_t bytes = std::mbrtowc(&character, &text[i], text.size() - i, &state);
      if (bytes == 0 || bytes > text.size() - i) {
         // Not of the locale's characters: shown as something that has a width.
         state = {};
         ++i;
         if (used < columns) {
            out += '?';
            ++used;
         }
         continue;
      }
      const auto width = static_cast<std::size_t>(std::max(0, ::wcwidth(character)));
      if (used + width > columns) {
         break;
      }
      out.append(text, i, bytes);
      used += width;
      i += bytes;
   }
   return out.append(columns - used, ' ');
}

TopView::TopView(const std::vector<const TarnRegFile::HardwareRegister*>& registers, Style style)
   : _style(style) {
   for (const TarnRegFile::HardwareRegister* record : registers) {
      Row row{shownName(record->name), record->width, {}, false, {}};
      _nameWidth = std::max(_nameWidth, std::min<std::size_t>(40, row.name.size()));
      _valueWidth =
         std::max(_valueWidth, formatNumber(UINT32_MAX, record->width, _style.base).size());
      _rows.push_back(std::move(row));
   }
}

void TopView::_append(Row& row, std::optional<std::uint32_t> value) {
   row.history.push_back(value);
   if (row.history.size() > longest) {
      row.history.pop_front();
   }
}

void TopView::valueIs(std::size_t index, std::uint32_t value) {
   Row& row = _rows.at(index);
   row.hasChanged = !row.history.empty() && row.history.back() != value;
   row.error.clear();
   _append(row, value);
}

void TopView::failureIs(std::size_t index, const std::string& reason) {
   Row& row = _rows.at(index);
   row.hasChanged = row.error.empty() && !row.history.empty();
   row.error = printable(reason);
   _append(row, std::nullopt);
}

std::size_t TopView::failures() const noexcept {
   return static_cast<std::size_t>(
      std::count_if(_rows.begin(), _rows.end(), [](const Row& row) { return !row.error.empty(); }));
}

std::vector<std::string> TopView::lines(std::size_t first, std::size_t rows,
                                        std::size_t columns) const {
   std::vector<std::string> out;
   for (std::size_t i = first; i < _rows.size() && out.size() < rows; ++i) {
      out.push_back(_line(_rows[i], columns));
   }
   return out;
}

std::string TopView::_line(const Row& row, std::size_t columns) const {
   const std::string mark = _style.color         ? ""
                            : !row.error.empty() ? "! "
                            : row.hasChanged     ? "* "
                                                 : "  ";
   const std::string name = mark + fitted(row.name, _nameWidth) + "  ";
   const std::size_t used = mark.size() + _nameWidth + 2;
   if (used >= columns) {
      return fitted(name, columns);
   }
   if (!row.error.empty()) {
      const std::string error = fitted(row.error, columns - used);
      return name + (_style.color ? "\033[31m" + error + "\033[0m" : error);
   }
   const std::string value =
      row.history.empty() ? "" : formatNumber(*row.history.back(), row.width, _style.base);
   const std::size_t room = std::min(_valueWidth, columns - used);
   // Without its last digits a value would look like another one.
   const std::string shown = value.size() > room ? std::string(room, '>') : fitted(value, room);
   const bool inverse = _style.color && row.hasChanged;
   return name + (inverse ? "\033[7m" + shown + "\033[0m" : shown) +
          _plot(row, columns - used - room);
}

std::string TopView::_plot(const Row& row, std::size_t columns) const {
   constexpr std::size_t gap = 2;
   if (columns <= gap) {
      return "";
   }
   const std::size_t count = std::min(columns - gap, row.history.size());
   const auto begin = row.history.end() - static_cast<std::ptrdiff_t>(count);
   std::uint32_t low = UINT32_MAX;
   std::uint32_t high = 0;
   std::for_each(begin, row.history.end(), [&](const std::optional<std::uint32_t>& value) {
      low = std::min(low, value.value_or(low));
      high = std::max(high, value.value_or(high));
   });
   const auto& steps = _style.unicode ? blocks : letters;
   std::string out(gap, ' ');
   std::for_each(begin, row.history.end(), [&](const std::optional<std::uint32_t>& value) {
      if (!value) {
         out += ' ';
         return;
      }
      const std::uint64_t range = std::uint64_t{high} - low;
      const std::size_t step = range == 0 ? 0 : (*value - low) * (steps.size() - 1) / range;
      out += steps[step];
   });
   return out;
}

} // namespace TarnReg
