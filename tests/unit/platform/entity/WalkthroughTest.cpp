// The program that docs/entity.md explains, kept here so that it keeps compiling and working.

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/entity/CallbackNotifiee.h"
#include "platform/entity/Directory.h"
#include "platform/entity/Errors.h"
#include "platform/entity/Node.h"
#include "platform/entity/OwnedNotifiee.h"
#include "platform/entity/TypeBuilder.h"
#include "platform/entity/ValueSyntax.h"

namespace Demo {

using Platform::AttributeId;
using Platform::Change;
using Platform::Node;
using Platform::Ptr;
using Platform::String;
using Platform::TypeBuilder;
using Platform::TypeData;

class Tray;

/// A fan in a tray. The tray holds its fans, and a fan holds its tray.
class Fan : public Node {
public:
   static constexpr AttributeId speedId{"speed"};

   Fan(String name, const Ptr<Tray>& tray) : _name(std::move(name)), _tray(tray) {}

   const String& name() const { return _name; }
   const Ptr<Tray>& tray() const { return _tray; }

   std::uint32_t speed() const { return _speed; }
   void speedIs(std::uint32_t rpm) {
      if (rpm > 12000) {
         throw Platform::RangeError("speed of " + _name + " is limited to 12000 rpm");
      }
      store(_speed, rpm, speedId); // stores, then publishes if it differs; the last thing done
   }

   bool spinsUpTo(std::uint32_t rpm) const { return rpm <= 12000; }

   /// Lets go of the tray. Called by it; harmless when repeated.
   void teardown() { _tray.reset(); }

   static const TypeData& staticType();
   const TypeData& typeData() const override { return staticType(); }

private:
   String _name;
   Ptr<Tray> _tray;
   std::uint32_t _speed = 0;
};

const TypeData& Fan::staticType() {
   static const TypeData type = TypeBuilder<Fan>("Demo::Fan", Node::staticType())
                                   .attribute<&Fan::name>("name")
                                   .attribute<&Fan::speed, &Fan::speedIs>("speed")
                                   .operation<&Fan::spinsUpTo>("spinsUpTo", {"rpm"})
                                   .build();
   return type;
}

class Tray : public Node {
public:
   static constexpr AttributeId fanId{"fan"};

   /// Adds a fan in slot `slot` and publishes it under that key.
   Ptr<Fan> fanIs(std::uint32_t slot, const String& name) {
      Ptr<Fan>& place = _fans[slot];
      if (!place) {
         place = Platform::make<Fan>(name, Ptr<Tray>(this));
         const Ptr<Fan> fan = place;
         publish(fanId, slot); // may run anything: `place` is not touched again
         return fan;
      }
      return place;
   }

   Ptr<Fan> fan(std::uint32_t slot) const {
      const auto found = _fans.find(slot);
      return found == _fans.end() ? nullptr : found->second;
   }

   std::vector<std::uint32_t> slots() const {
      std::vector<std::uint32_t> slots;
      for (const auto& [slot, fan] : _fans) {
         slots.push_back(slot);
      }
      return slots;
   }

   /// Takes tray and fans apart. The owner calls it before it lets go; harmless when repeated.
   void teardown() {
      const auto fans = std::exchange(_fans, {});
      for (const auto& [slot, fan] : fans) {
         fan->teardown();
      }
   }

   static const TypeData& staticType();
   const TypeData& typeData() const override { return staticType(); }

private:
   std::map<std::uint32_t, Ptr<Fan>> _fans;
};

const TypeData& Tray::staticType() {
   static const TypeData type = TypeBuilder<Tray>("Demo::Tray", Node::staticType())
                                   .collection<&Tray::slots, &Tray::fan>("fan")
                                   .build();
   return type;
}

/// Keeps the highest speed that a fan had. Owned by whoever wants to know.
class Record {
public:
   explicit Record(const Ptr<Fan>& fan) : _reactor(std::in_place, *this) {
      _reactor->notifierIs(fan);
   }
   std::uint32_t highest() const { return _highest; }

private:
   class Reactor : public Platform::Notifiee {
   public:
      explicit Reactor(Record& record) : _record(record) {}
      void onChange(const Change& change) override {
         const auto& fan = static_cast<const Fan&>(change.source);
         if (change.attribute == Fan::speedId) {
            _record._highest = std::max(_record._highest, fan.speed());
         }
      }

   private:
      Record& _record;
   };

   std::uint32_t _highest = 0;
   Platform::OwnedNotifiee<Reactor> _reactor; // silenced when the record goes
};

/// A value with fields.
struct Curve {
   static String valueTypeName() { return "Demo::Curve"; }

   Curve(String fan, double slope) : label(std::move(fan)), gain(slope) {}
   explicit Curve(Platform::TextRange& range) {
      Platform::RecordReader reader(range, valueTypeName());
      reader.field("label", label).field("gain", gain);
      reader.done();
   }
   String stringRep() const {
      return Platform::RecordWriter(valueTypeName())
         .field("label", label)
         .field("gain", gain)
         .done();
   }

   String label;
   double gain = 0;
};

} // namespace Demo

using Demo::Curve;
using Demo::Fan;
using Demo::Tray;
using Platform::make;
using Platform::Ptr;
using Platform::Value;
using Platform::WeakPtr;

TEST(Walkthrough, NotifieesSeeWhatTheSetterStored) {
   auto tray = make<Tray>();
   std::string log;
   const auto fans = Platform::subscribe(*tray, Tray::fanId, [&](const Platform::Change& change) {
      log += "fan " + change.key.toString() + ";";
   });
   const Ptr<Fan> fan = tray->fanIs(2, "left");
   EXPECT_EQ(tray->fanIs(2, "left"), fan);
   EXPECT_EQ(log, "fan 2;");

   auto record = std::make_unique<Demo::Record>(fan);
   fan->speedIs(9000);
   fan->speedIs(4000);
   EXPECT_EQ(record->highest(), 9000U);
   record.reset();
   EXPECT_FALSE(fan->hasNotifiees());
   tray->teardown();
}

TEST(Walkthrough, TableGivesDescriptionAccessAndCalls) {
   const auto fan = make<Fan>("left", nullptr);
   const Platform::TypeData& type = fan->typeData();
   EXPECT_EQ(type.describe(), "type Demo::Fan : Platform::Node\n"
                              "  attribute name: String, read-only\n"
                              "  attribute speed: U32, read-write\n"
                              "  operation spinsUpTo(rpm: U32) -> Bool\n");
   type.setText(*fan, "speed", "0x1000");
   EXPECT_EQ(type.get(*fan, "speed").toString(), "4096");
   EXPECT_EQ(Platform::Reflect::invoke(*fan, "spinsUpTo", {Value::of(20000)}).toString(), "false");
   try {
      type.setText(*fan, "speed", "fast");
      FAIL() << "nothing thrown";
   } catch (const Platform::RangeError& error) {
      EXPECT_STREQ(error.what(), "Demo::Fan::speed: 'fast' is not a U32: 'fast' is not a number");
   }
}

TEST(Walkthrough, ValuesAndReferencesReadBack) {
   const std::string text = Curve("left, 'main'", 0.25).stringRep();
   EXPECT_EQ(text, R"(Value('Demo::Curve', label='left, \'main\'', gain=0.25))");
   Platform::TextRange range(text);
   EXPECT_EQ(Curve(range).label, "left, 'main'");

   Platform::Directory directory;
   const auto fan = make<Fan>("left", nullptr);
   directory.add(fan->name(), fan);
   const std::string reference = Value::of(fan).toString();
   EXPECT_EQ(reference, "Entity('Demo::Fan', 'left')");
   Platform::TextRange where(reference, &directory);
   EXPECT_EQ(Platform::ValueTraits<Ptr<Fan>>::read(where), fan);
}

TEST(Walkthrough, TeardownBreaksTheCycleHoweverOftenItIsCalled) {
   auto tray = make<Tray>();
   Ptr<Fan> fan = tray->fanIs(1, "left");
   tray->fanIs(2, "right");
   EXPECT_EQ(fan->tray(), tray);
   EXPECT_EQ(tray->refCount(), 3U);
   const WeakPtr<Tray> trayGone(tray);
   const WeakPtr<Fan> fanGone(fan);

   tray->teardown();
   tray->teardown();
   EXPECT_EQ(tray->refCount(), 1U);
   tray.reset();
   EXPECT_EQ(trayGone.lock(), nullptr);
   EXPECT_EQ(fan->tray(), nullptr) << "a fan that is still held has no tray any more";
   fan.reset();
   EXPECT_EQ(fanGone.lock(), nullptr);
}

TEST(Walkthrough, TeardownFromInsideANotificationIsSafe) {
   auto tray = make<Tray>();
   const WeakPtr<Tray> gone(tray);
   const auto fans = Platform::subscribe(*tray, [&](const Platform::Change&) {
      tray->teardown();
      tray.reset();
   });
   const Ptr<Fan> fan = Ptr<Tray>(tray)->fanIs(1, "left");
   EXPECT_EQ(gone.lock(), nullptr);
   EXPECT_EQ(fan->tray(), nullptr);
}
