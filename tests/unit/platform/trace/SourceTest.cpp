#include "platform/trace/Source.h"

#include <cerrno>
#include <memory>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/trace/CaptureScope.h"
#include "platform/trace/Trace.h"

namespace {

using Platform::Trace::CaptureScope;
using Platform::Trace::levels;
using Platform::Trace::levelsAre;
using Platform::Trace::off;
using Platform::Trace::Source;
using Platform::Trace::sourceNames;
using testing::Contains;
using testing::Not;

TARN_TRACE_SOURCE(definedSource, "test/source/defined");

TEST(TraceSource, HasTheNameItWasGiven) {
   EXPECT_EQ(definedSource.name(), "test/source/defined");
}

TEST(TraceSource, UnlessToldOtherwiseOnlyFailuresAreEnabled) {
   const CaptureScope scope("");
   EXPECT_EQ(definedSource.threshold(), 0);
   EXPECT_TRUE(definedSource.isEnabled(0));
   EXPECT_FALSE(definedSource.isEnabled(1));
}

TEST(TraceSource, LevelsUpToTheThresholdAreEnabled) {
   const CaptureScope scope("test/source/defined=5");
   EXPECT_TRUE(definedSource.isEnabled(0));
   EXPECT_TRUE(definedSource.isEnabled(5));
   EXPECT_FALSE(definedSource.isEnabled(6));
   EXPECT_FALSE(definedSource.isEnabled(9));
}

TEST(TraceSource, OffDisablesFailuresToo) {
   const CaptureScope scope("*=off");
   EXPECT_EQ(definedSource.threshold(), off);
   EXPECT_FALSE(definedSource.isEnabled(0));
}

TEST(TraceSource, LevelsBeyondTheLastAreNeverEnabled) {
   const CaptureScope scope("*=9");
   EXPECT_FALSE(definedSource.isEnabled(10));
   Source fresh("test/source/fresh");
   EXPECT_FALSE(fresh.isEnabled(10));
}

TEST(TraceSource, DefinedByTheMacroIsKnownBeforeItIsUsed) {
   EXPECT_THAT(sourceNames(), Contains("test/source/defined"));
}

TEST(TraceSource, PlainOneIsKnownOnceItIsAsked) {
   Source source("test/source/plain");
   EXPECT_THAT(sourceNames(), Not(Contains("test/source/plain")));
   EXPECT_TRUE(source.isEnabled(0));
   EXPECT_THAT(sourceNames(), Contains("test/source/plain"));
}

TEST(TraceSource, OneThatComesLaterGetsTheLevelsInForce) {
   const CaptureScope scope("test/source/l*=7");
   Source source("test/source/late");
   EXPECT_TRUE(source.isEnabled(7));
   EXPECT_FALSE(source.isEnabled(8));
}

TEST(TraceSource, OneThatComesLaterIsDisabledFromItsFirstUse) {
   const CaptureScope scope("test/source/late=off");
   Source source("test/source/late");
   EXPECT_FALSE(source.isEnabled(0));
}

TEST(TraceSource, SourcesOfOneNameHaveOneThresholdAndAreListedOnce) {
   Source first("test/source/twin");
   Source second("test/source/twin");
   first.registered();
   second.registered();
   const CaptureScope scope("test/source/twin=3");
   EXPECT_EQ(first.threshold(), 3);
   EXPECT_EQ(second.threshold(), 3);
   const auto names = sourceNames();
   EXPECT_EQ(std::count(names.begin(), names.end(), "test/source/twin"), 1);
}

TEST(TraceSource, DestroyedOnesAreForgottenWhateverTheirPlaceInTheList) {
   const CaptureScope scope("");
   for (int gone = 0; gone < 3; ++gone) {
      std::unique_ptr<Source> sources[] = {std::make_unique<Source>("test/source/0"),
                                           std::make_unique<Source>("test/source/1"),
                                           std::make_unique<Source>("test/source/2")};
      for (const auto& source : sources) {
         source->registered();
      }
      const std::string name(sources[gone]->name());
      sources[gone].reset();
      EXPECT_THAT(sourceNames(), Not(Contains(name)));
      levelsAre("test/source/*=4");
      for (int i = 0; i < 3; ++i) {
         if (i != gone) {
            EXPECT_EQ(sources[i]->threshold(), 4);
         }
      }
   }
}

TEST(TraceSource, RegisteringTwiceIsHarmless) {
   Source source("test/source/again");
   EXPECT_TRUE(source.registered());
   EXPECT_TRUE(source.registered());
   const CaptureScope scope("test/source/again=2");
   EXPECT_EQ(source.threshold(), 2);
}

TEST(TraceSource, LeavesErrnoAlone) {
   errno = ENXIO;
   {
      Source source("test/source/errno");
      static_cast<void>(source.isEnabled(0));
   }
   EXPECT_EQ(errno, ENXIO);
}

TEST(TraceSource, NamesAreSorted) {
   Source b("test/source/b");
   Source a("test/source/a");
   a.registered();
   b.registered();
   const auto names = sourceNames();
   EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
}

TEST(TraceLevelsAre, ReplaceTheOnesBefore) {
   const CaptureScope scope("test/source/defined=5");
   levelsAre("other=2");
   EXPECT_EQ(definedSource.threshold(), 0);
   EXPECT_EQ(levels(), "other=2");
}

TEST(TraceLevelsAre, BadEntryChangesNothing) {
   const CaptureScope scope("test/source/defined=5");
   EXPECT_THROW(levelsAre("test/source/defined=7,bad"), std::invalid_argument);
   EXPECT_EQ(definedSource.threshold(), 5);
   EXPECT_EQ(levels(), "test/source/defined=5");
   Source late("test/source/defined");
   EXPECT_EQ(late.threshold(), 5);
}

} // namespace
