#include "platform/entity/CallbackNotifiee.h"

#include <utility>

namespace Platform {

Subscription subscribe(const Node& source, CallbackNotifiee::Callback callback) {
   Subscription subscription(std::in_place, std::move(callback));
   subscription->notifierIs(&source);
   return subscription;
}

Subscription subscribe(const Node& source, AttributeId attribute,
                       CallbackNotifiee::Callback callback) {
   return subscribe(source, [attribute, callback = std::move(callback)](const Change& change) {
      if (change.attribute == attribute) {
         callback(change);
      }
   });
}

} // namespace Platform
