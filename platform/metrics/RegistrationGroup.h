#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "platform/metrics/Registration.h"
#include "platform/metrics/SeriesTable.h"

namespace Platform::Metrics {

/// What a Registration holds: its entries, and the table that they are in. Internal.
struct Registration::Group {
   explicit Group(std::shared_ptr<SeriesTable> seriesTable) : table(std::move(seriesTable)) {}
   ~Group() { table->entriesDel(entries); }

   Group(const Group&) = delete;
   Group& operator=(const Group&) = delete;

   std::shared_ptr<SeriesTable> table;
   std::vector<SeriesTable::Entry> entries; // those that the table has
};

} // namespace Platform::Metrics
