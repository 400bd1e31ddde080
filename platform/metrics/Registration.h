#pragma once

#include <memory>

#include "platform/entity/Export.h"

namespace Platform::Metrics {

/// Keeps a group of counters and histograms visible in a Registry for as long as it lives.
///
/// Declare it after what it shows: it must go before them. Once its destructor has returned none
/// of them is read any more, a scrape under way included. It may outlive the registry. Movable; a
/// moved-from one shows nothing. A single one is used by one thread at a time; several on any
/// threads.
class TARN_PLATFORM_API Registration {
public:
   /// Shows nothing.
   Registration() noexcept;
   ~Registration();

   Registration(Registration&& other) noexcept;
   Registration& operator=(Registration&& other) noexcept;

   /// False for one that was refused, moved from or made empty.
   [[nodiscard]] bool isRegistered() const noexcept { return _group != nullptr; }

private:
   friend class Registry;

   struct Group;
   explicit Registration(std::unique_ptr<Group> group) noexcept;

   std::unique_ptr<Group> _group;
};

} // namespace Platform::Metrics
