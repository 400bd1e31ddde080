#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/entity/Node.h"
#include "platform/entity/Notifiee.h"
#include "platform/entity/TypeBuilder.h"
#include "platform/entity/Value.h"

/// Entities and observers that the tests of this folder share.
namespace EntityTest {

using Log = std::vector<std::string>;

/// An entity with a plain attribute and a collection. Counts the living.
class Probe : public Platform::Node {
public:
   static constexpr Platform::AttributeId levelId{"level"};
   static constexpr Platform::AttributeId entryId{"entry"};

   explicit Probe(std::string name = "probe") : _name(std::move(name)) { ++alive; }

   const std::string& name() const { return _name; }

   std::uint32_t level() const { return _level; }
   void levelIs(std::uint32_t level) { store(_level, level, levelId); }

   void entryIs(std::uint32_t key, const std::string& text) {
      const auto found = _entries.find(key);
      if (found == _entries.end() || found->second != text) {
         _entries[key] = text;
         publish(entryId, key);
      }
   }
   std::string entry(std::uint32_t key) const { return _entries.at(key); }

   static const Platform::TypeData& staticType() {
      static const Platform::TypeData type =
         Platform::TypeBuilder<Probe>("EntityTest::Probe", Platform::Node::staticType())
            .attribute<&Probe::name>("name")
            .attribute<&Probe::level, &Probe::levelIs>("level")
            .build();
      return type;
   }
   const Platform::TypeData& typeData() const override { return staticType(); }

   static inline int alive = 0;
   std::function<void(Probe&)> inDestructor;

protected:
   ~Probe() override {
      if (inDestructor) {
         inDestructor(*this);
      }
      --alive;
   }

private:
   std::string _name;
   std::uint32_t _level = 0;
   std::map<std::uint32_t, std::string> _entries;
};

/// Writes "<name>:<level it found>" to a log, then does what the test wants. Counts the living.
class Observer : public Platform::Notifiee {
public:
   using Action = std::function<void(const Platform::Change&)>;

   Observer(std::string name, Log& log, Action wanted = {})
      : action(std::move(wanted)), _name(std::move(name)), _log(log) {
      ++alive;
   }
   ~Observer() override { --alive; }

   void onChange(const Platform::Change& change) override {
      const auto& probe = dynamic_cast<const Probe&>(change.source);
      _log.push_back(_name + ":" + std::to_string(probe.level()));
      if (action) {
         action(change);
      }
   }

   static inline int alive = 0;
   Action action;

private:
   std::string _name;
   Log& _log;
};

/// A new observer, subscribed to `source`.
inline Platform::Ptr<Observer> observe(const Platform::Node& source, std::string name, Log& log,
                                       Observer::Action action = {}) {
   auto observer = Platform::make<Observer>(std::move(name), log, std::move(action));
   observer->notifierIs(&source);
   return observer;
}

/// Runs `body` and returns the text of the RangeError it throws.
template <typename Body>
std::string rangeErrorOf(Body&& body) {
   try {
      body();
   } catch (const Platform::RangeError& error) {
      return error.what();
   }
   return "(nothing thrown)";
}

} // namespace EntityTest
