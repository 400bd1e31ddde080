#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <system_error>

#include "platform/hardware/SigbusException.h"
#include "platform/trace/CaptureScope.h"
#include "platform/trace/Record.h"
#include "platform/trace/Sink.h"
#include "platform/trace/Trace.h"
#include "TarnRegFile/TransportMethod.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/Failure.h"

namespace {

using Platform::Trace::CaptureScope;
using Platform::Trace::CaptureSink;
using TarnRegFile::Ptr;
using TarnRegFile::TransportMethod;
using TarnRegFile::tryPerformIO;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::ChangeLog;
using TestSupport::Failure;

class TryPerformIO : public testing::Test {
protected:
   /// Runs one access that does this.
   void run(std::function<void()> action) { tryPerformIO(_tm.get(), "REG", std::move(action)); }

   bool error() const { return _tm->errorNotifier()->error(); }

   Ptr<TransportMethod> _tm = [] {
      auto tm = TarnRegFile::transportMethodFactory("chip");
      tm->errorNotifierIs("chip");
      return tm;
   }();
   CaptureScope _trace{"*=9"};
};

CaptureSink::Entry entry(const char* function, const std::string& text) {
   return {"TarnRegFile/TransportMethod", function, 0, text};
}

TEST_F(TryPerformIO, ASuccessfulActionRunsOnceAndLeavesEverythingAlone) {
   ChangeLog log(*_tm->errorNotifier());
   int runs = 0;
   run([&] { ++runs; });
   EXPECT_EQ(runs, 1);
   EXPECT_FALSE(error());
   EXPECT_THAT(log.changes, IsEmpty());
   EXPECT_THAT(_trace.texts(), IsEmpty());
}

TEST_F(TryPerformIO, ASuccessDoesNotClearTheFlag) {
   _tm->errorNotifier()->errorIs(true);
   run([] {});
   EXPECT_TRUE(error());
}

TEST_F(TryPerformIO, ARuntimeErrorIsTracedWithItsTextAndRecorded) {
   run([] { throw std::runtime_error("bus stuck"); });
   EXPECT_TRUE(error());
   EXPECT_THAT(
      _trace.records(),
      ElementsAre(entry("tryPerformIO", "TransportMethod error on register 'REG': bus stuck"),
                  entry("handleExceptionGeneric",
                        "TransportMethod exception caught, Notifying agent: chip")));
}

TEST_F(TryPerformIO, ASystemErrorIsARuntimeError) {
   run([] { throw std::system_error(EIO, std::generic_category(), "short read"); });
   EXPECT_TRUE(error());
   EXPECT_EQ(_trace.texts()[0],
             "TransportMethod error on register 'REG': short read: Input/output error");
}

TEST_F(TryPerformIO, ABusErrorHasItsOwnText) {
   run([] { throw Hardware::SigbusException(); });
   EXPECT_TRUE(error());
   EXPECT_THAT(
      _trace.records(),
      ElementsAre(entry("tryPerformIO", "Got SIGBUS when performing operation on register 'REG'"),
                  entry("handleExceptionGeneric",
                        "TransportMethod exception caught, Notifying agent: chip")));
}

TEST_F(TryPerformIO, TextsAreTakenAsTheyStand) {
   tryPerformIO(_tm.get(), "{}'", [] { throw std::runtime_error("{0} %s"); });
   EXPECT_EQ(_trace.texts()[0], "TransportMethod error on register '{}'': {0} %s");
}

TEST_F(TryPerformIO, AnyOtherExceptionPassesThroughUnseen) {
   _tm->raiseExceptionOnErrorIs(true);
   EXPECT_THROW(run([] { throw std::logic_error("bug"); }), std::logic_error);
   EXPECT_THROW(run([] { throw std::bad_alloc(); }), std::bad_alloc);
   EXPECT_THROW(run([] { throw 42; }), int);
   EXPECT_FALSE(error());
   EXPECT_THAT(_trace.texts(), IsEmpty());
}

TEST_F(TryPerformIO, AnEmptyActionIsABadFunctionCall) {
   EXPECT_THROW(run(nullptr), std::bad_function_call);
   EXPECT_FALSE(error());
   EXPECT_THAT(_trace.texts(), IsEmpty());
}

TEST_F(TryPerformIO, TheFlagIsPublishedOnceForARaisingEdge) {
   ChangeLog log(*_tm->errorNotifier());
   run([] { throw std::runtime_error("one"); });
   run([] { throw std::runtime_error("two"); });
   EXPECT_THAT(log.changes, ElementsAre("error"));
   EXPECT_EQ(_trace.texts().size(), 4u) << "both are traced";
   _tm->errorNotifier()->errorIs(false);
   run([] {});
   EXPECT_FALSE(error());
   run([] { throw std::runtime_error("three"); });
   EXPECT_THAT(log.changes, ElementsAre("error", "error", "error"));
}

TEST_F(TryPerformIO, RaisesTheErrnoOfTheFailureOnlyWhenAskedTo) {
   errno = ENXIO;
   EXPECT_EQ(Failure([&] { run([] { throw std::runtime_error("x"); }); }), Failure::none());
   _tm->raiseExceptionOnErrorIs(true);
   EXPECT_EQ(Failure([&] {
                run([] {
                   errno = ETIMEDOUT;
                   throw std::runtime_error("x");
                });
             }),
             Failure::errnoException(ETIMEDOUT));
   EXPECT_EQ(Failure([&] {
                run([] {
                   errno = EREMOTEIO;
                   throw Hardware::SigbusException();
                });
             }),
             Failure::errnoException(EREMOTEIO));
   EXPECT_TRUE(error());
}

TEST_F(TryPerformIO, TheExceptionCaughtIsNotTheOneRaised) {
   _tm->raiseExceptionOnErrorIs(true);
   EXPECT_EQ(Failure([&] {
                run([] {
                   errno = ENODEV;
                   throw std::system_error(EIO, std::generic_category(), "short read");
                });
             }),
             Failure::errnoException(ENODEV));
}

TEST_F(TryPerformIO, TheErrnoRaisedIsTheOneBeforeTraceAndObservers) {
   _tm->raiseExceptionOnErrorIs(true);
   // A sink and an observer that both upset errno.
   class Upsetting : public Platform::Trace::Sink {
      void write(const Platform::Trace::Record&) override { errno = EPERM; }
   };
   const auto previous = Platform::Trace::sinkIs(std::make_shared<Upsetting>());
   ChangeLog log(*_tm->errorNotifier(), [] { errno = EBADF; });
   const Failure failure([&] {
      run([] {
         errno = ENODEV;
         throw std::runtime_error("x");
      });
   });
   Platform::Trace::sinkIs(previous);
   EXPECT_EQ(failure, Failure::errnoException(ENODEV));
   EXPECT_THAT(log.changes, ElementsAre("error"));
}

TEST_F(TryPerformIO, AnObserverRunsBeforeTheExceptionIsRaised) {
   _tm->raiseExceptionOnErrorIs(true);
   bool flag = false;
   ChangeLog log(*_tm->errorNotifier(), [&] { flag = error(); });
   EXPECT_THROW(run([] { throw std::runtime_error("x"); }), Platform::ErrnoException);
   EXPECT_TRUE(flag);
}

TEST_F(TryPerformIO, AnObserverThatClearsTheFlagAtOnceMakesEveryFailureAnEdge) {
   ChangeLog log(*_tm->errorNotifier(), [&] { _tm->errorNotifier()->errorIs(false); });
   run([] { throw std::runtime_error("x"); });
   EXPECT_FALSE(error());
   run([] { throw std::runtime_error("x"); });
   EXPECT_THAT(log.changes, ElementsAre("error", "error", "error", "error"));
}

TEST_F(TryPerformIO, AnObserverMayDetachTheNotifier) {
   _tm->raiseExceptionOnErrorIs(true);
   ChangeLog log(*_tm->errorNotifier(), [&] { _tm->errorNotifierDel(); });
   EXPECT_EQ(Failure([&] {
                run([] {
                   errno = ENODEV;
                   throw std::runtime_error("x");
                });
             }),
             Failure::errnoException(ENODEV));
   EXPECT_EQ(_tm->errorNotifier(), nullptr);
}

TEST_F(TryPerformIO, WithoutANotifierTheFailureIsTracedUnderTheEntitysName) {
   _tm->errorNotifierDel();
   run([] { throw std::runtime_error("x"); });
   EXPECT_EQ(_trace.texts()[1], "TransportMethod exception caught, Notifying agent: chip");
   _tm->raiseExceptionOnErrorIs(true);
   EXPECT_THROW(run([] { throw std::runtime_error("x"); }), Platform::ErrnoException);
}

TEST_F(TryPerformIO, TheChipNamedIsTheNotifiers) {
   _tm->errorNotifier()->chipNameIs("renamed");
   run([] { throw std::runtime_error("x"); });
   EXPECT_EQ(_trace.texts()[1], "TransportMethod exception caught, Notifying agent: renamed");
}

TEST_F(TryPerformIO, FailuresAreTracedAtLevelZeroWhichIsOnByDefault) {
   CaptureScope lowest("");
   run([] { throw std::runtime_error("x"); });
   EXPECT_EQ(lowest.texts().size(), 2u);
   CaptureScope off("*=off");
   run([] { throw std::runtime_error("x"); });
   EXPECT_THAT(off.texts(), IsEmpty());
}

} // namespace
