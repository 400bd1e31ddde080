#pragma once

#include <compare>
#include <cstddef>
#include <string>
#include <string_view>

#include "platform/entity/Export.h"

namespace Platform::Metrics {

/// One name and value that tell the series of a metric apart: {"entity", "fpga0"}.
struct Label {
   std::string name;
   std::string value;

   // clang-tidy takes the comparison's literal zero, which the compiler puts in, for a pointer.
   friend auto operator<=>(const Label&, const Label&) = default; // NOLINT(modernize-use-nullptr)
};

/// Whether `name` is a metric name: 1 to 128 of letters, digits, `_` and `:`, no digit first.
[[nodiscard]] TARN_PLATFORM_API bool isMetricName(std::string_view name) noexcept;

/// Whether `name` is a label name: 1 to 64 of letters, digits and `_`, no digit first, and not
/// beginning with two underscores, which the collecting side keeps for itself.
[[nodiscard]] TARN_PLATFORM_API bool isLabelName(std::string_view name) noexcept;

/// `value` as it is shown: each control character but the line feed, and each byte that is not
/// UTF-8, becomes `?` (one such value would make the whole scrape unreadable); then a value of
/// more than `maxBytes` bytes is cut at a character's end and ends in `...`, within `maxBytes`
/// in all. `maxBytes` is at least 3. Throws only std::bad_alloc.
[[nodiscard]] TARN_PLATFORM_API std::string boundedLabelValue(std::string_view value,
                                                              std::size_t maxBytes);

} // namespace Platform::Metrics
