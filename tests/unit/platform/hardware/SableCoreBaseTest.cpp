#include "platform/hardware/SableCoreBase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/entity/TypeData.h"
#include "platform/entity/Value.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Reflected.h"

namespace {

using Hardware::CoreRegisterDescriptor;
using Hardware::Generation;
using Hardware::SableCoreBase;
using Platform::Ptr;
using Platform::String;
using Platform::Value;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::ChangeLog;

class SomeDescriptor : public Hardware::TransportDescriptorBase {};

Ptr<SableCoreBase> core() {
   return Platform::make<SableCoreBase>("core0", nullptr, nullptr);
}

TEST(SableCoreBase, BeginsWithoutRegistersInTheNullGeneration) {
   const auto file = Hardware::hardwareRegisterFileFactory("list");
   const auto descriptor = Platform::make<SomeDescriptor>();
   const auto model = Platform::make<SableCoreBase>("core0", file, descriptor);
   EXPECT_EQ(model->name(), "core0");
   EXPECT_EQ(model->generation(), Generation());
   EXPECT_EQ(model->registerFile(), file);
   EXPECT_EQ(model->transportDescriptor(), descriptor);
   EXPECT_EQ(model->registerDescs(), 0u);
   EXPECT_EQ(model->findRegisterDesc("A"), nullptr);
}

TEST(SableCoreBase, PublishesItsGenerationWhenIdOrFlagDiffer) {
   const auto model = core();
   Generation seen;
   ChangeLog log(*model, [&] { seen = model->generation(); });
   model->generationIs({0, false});
   EXPECT_THAT(log.changes, IsEmpty());
   model->generationIs({1, true});
   EXPECT_EQ(seen, Generation(1, true)) << "stored before it is published";
   model->generationIs({1, true});
   EXPECT_THAT(log.changes, ElementsAre("generation"));
   model->generationIs({1, false});
   model->generationIs({2, false});
   EXPECT_THAT(log.changes, ElementsAre("generation", "generation", "generation"));
}

TEST(SableCoreBase, KeepsTheOrderInWhichRegistersWereFirstSet) {
   const auto model = core();
   for (const char* name : {"ZULU", "ALPHA", "MIKE"}) {
      model->registerDescIs(name, {4, false});
   }
   model->registerDescIs("ZULU", {8, true});
   EXPECT_THAT(model->registerDescNames(), ElementsAre("ZULU", "ALPHA", "MIKE"));
   std::vector<String> visited;
   model->forEachRegisterDesc([&](const String& name, const CoreRegisterDescriptor& descriptor) {
      visited.push_back(name + "@" + std::to_string(descriptor.address));
   });
   EXPECT_THAT(visited, ElementsAre("ZULU@8", "ALPHA@4", "MIKE@4"));
}

TEST(SableCoreBase, FindsWhatIsThereAndNothingElse) {
   const auto model = core();
   model->registerDescIs("A", {4, false});
   model->registerDescIs("B", {8, true});
   ASSERT_NE(model->findRegisterDesc("B"), nullptr);
   EXPECT_EQ(*model->findRegisterDesc("B"), CoreRegisterDescriptor(8, true));
   EXPECT_EQ(model->findRegisterDesc("a"), nullptr);
   EXPECT_EQ(model->findRegisterDesc(""), nullptr);
   EXPECT_EQ(model->registerDescs(), 2u);
}

TEST(SableCoreBase, WhatIsLeftAfterARemovalIsFoundInTheSameOrder) {
   const auto model = core();
   for (std::uint32_t i = 0; i < 5; ++i) {
      model->registerDescIs("R" + std::to_string(i), {4 * i, false});
   }
   model->registerDescDel(model->registerDescNames().at(1));
   model->registerDescDel("R3");
   EXPECT_THAT(model->registerDescNames(), ElementsAre("R0", "R2", "R4"));
   EXPECT_EQ(model->findRegisterDesc("R1"), nullptr);
   EXPECT_EQ(model->findRegisterDesc("R4")->address, 16u);
   model->registerDescIs("R1", {1, false});
   EXPECT_THAT(model->registerDescNames(), ElementsAre("R0", "R2", "R4", "R1"));
}

TEST(SableCoreBase, PublishesChangesOfRegistersWithTheirNames) {
   const auto model = core();
   ChangeLog log(*model);
   model->registerDescIs("A", {4, false});
   model->registerDescIs("A", {4, false});
   model->registerDescIs("A", {4, true});
   model->registerDescDel("B");
   model->registerDescDel("A");
   EXPECT_THAT(log.changes,
               ElementsAre("registerDesc['A']", "registerDesc['A']", "registerDesc['A']"));
}

TEST(SableCoreBase, IsDescribedByItsTable) {
   const auto& type = SableCoreBase::staticType();
   EXPECT_EQ(type.name(), "Hardware::SableCoreBase");
   EXPECT_THAT(TestSupport::reflectedAttributes(type),
               ElementsAre("name", "generation (rw)", "registerFile", "transportDescriptor",
                           "registerDesc"));
   EXPECT_THAT(TestSupport::reflectedOperations(type),
               ElementsAre("registerDescIs(name, descriptor)", "registerDescDel(name)"));
   EXPECT_EQ(Hardware::TransportDescriptorBase::staticType().name(),
             "Hardware::TransportDescriptorBase");
}

} // namespace
