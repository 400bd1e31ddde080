#pragma once

#include <functional>

#include "platform/entity/Export.h"
#include "platform/entity/Notifiee.h"
#include "platform/entity/OwnedNotifiee.h"

namespace Platform {

/// Calls a function for every change of a node, or of one of its attributes.
class TARN_PLATFORM_API CallbackNotifiee : public Notifiee {
public:
   using Callback = std::function<void(const Change&)>;

   explicit CallbackNotifiee(Callback callback) : _callback(std::move(callback)) {}
   void onChange(const Change& change) override { _callback(change); }

private:
   Callback _callback;
};

/// A subscription that ends when it goes out of scope.
using Subscription = OwnedNotifiee<CallbackNotifiee>;

/// Calls `callback` for every change of `source`, as long as the returned subscription lives.
TARN_PLATFORM_API Subscription subscribe(const Node& source, CallbackNotifiee::Callback callback);

/// The same for the changes of one attribute.
TARN_PLATFORM_API Subscription subscribe(const Node& source, AttributeId attribute,
                                         CallbackNotifiee::Callback callback);

} // namespace Platform
