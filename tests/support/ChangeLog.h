#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/entity/CallbackNotifiee.h"
#include "platform/entity/Change.h"
#include "platform/entity/Node.h"
#include "platform/entity/Value.h"

namespace TestSupport {

/// Keeps the changes that a node publishes, as "attribute" or "attribute[key]", and then does what
/// the test wants.
class ChangeLog {
public:
   explicit ChangeLog(const Platform::Node& source, std::function<void()> onChange = {})
      : _subscription(Platform::subscribe(
           source, [this, action = std::move(onChange)](const Platform::Change& change) {
              std::string line(change.attribute.name());
              if (!change.key.empty()) {
                 line += "[" + change.key.toString() + "]";
              }
              changes.push_back(std::move(line));
              if (action) {
                 action();
              }
           })) {}
   ChangeLog(const ChangeLog&) = delete;
   ChangeLog& operator=(const ChangeLog&) = delete;

   std::vector<std::string> changes;

private:
   Platform::Subscription _subscription;
};

} // namespace TestSupport
