#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <stdexcept>

#include "tests/unit/tools/Board.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/Verbs.h"

namespace {

using namespace std::chrono_literals;
using TarnReg::ExitCode;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using TestSupport::Board;

const std::string lines = "0,ID,id,false,16\n"
                          "1,FAN[0:1]_PWM,control,true,8\n"
                          "3,A&B,control,true,8\n";

const auto fail = [] { throw std::runtime_error("no acknowledge"); };

/// A clock that only waiting moves; `events` happen behind the wait of that number, from 1.
class FakePace {
public:
   TarnReg::Pace pace() {
      return {[this] { return now; },
              [this](TarnReg::Pace::Clock::duration duration) {
                 now += duration;
                 waits.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(duration));
                 if (const auto event = events.find(waits.size()); event != events.end()) {
                    event->second();
                 }
              }};
   }

   TarnReg::Pace::Clock::time_point now;
   std::vector<std::chrono::milliseconds> waits;
   std::map<std::size_t, std::function<void()>> events;
};

class LookingAgain : public testing::Test {
protected:
   ExitCode watch(std::uint64_t count, const std::vector<std::string>& patterns = {}) {
      return board.run([&](auto& report, auto&) {
         watchRegisters(*board.device, patterns, {250ms, count}, time.pace(), report);
      });
   }

   ExitCode poll(const std::vector<std::string>& conditions) {
      ExitCode code = ExitCode::ok;
      text.clear();
      board.run([&](auto& report, auto&) {
         try {
            pollRegisters(*board.device, conditions, {100ms, 250ms}, time.pace(), report);
         } catch (const TarnReg::Failure& failure) {
            code = failure.code();
            text = failure.what();
         }
      });
      return code;
   }

   Board board{lines};
   FakePace time;
   std::string text;
};

using Watch = LookingAgain;
using Poll = LookingAgain;

// -- watch ---------------------------------------------------------------------------------------

TEST_F(Watch, PrintsAllAtFirstAndThenWhatChanges) {
   time.events[1] = [&] { board.state->values["ID"] = 5; };
   time.events[3] = [&] { board.state->values["FAN[1]_PWM"] = 7; };
   EXPECT_EQ(watch(5, {"ID", "FAN*"}), ExitCode::ok);
   EXPECT_EQ(board.out, "ID          0x0000\n"
                        "FAN[0]_PWM  0x00\n"
                        "FAN[1]_PWM  0x00\n"
                        "ID          0x0005\n"
                        "FAN[1]_PWM  0x07\n");
   EXPECT_EQ(board.err, "");
   EXPECT_THAT(board.journal(), SizeIs(15));
}

TEST_F(Watch, WaitsBetweenRoundsAndNotBehindTheLast) {
   watch(3);
   EXPECT_THAT(time.waits, ElementsAre(250ms, 250ms));
   time.waits.clear();
   watch(1);
   EXPECT_THAT(time.waits, IsEmpty());
}

TEST_F(Watch, ReportsAFailureOnceAndTheValueWhenItIsBack) {
   time.events[1] = [&] { board.state->readFaults["ID"] = fail; };
   time.events[3] = [&] { board.state->readFaults.clear(); };
   EXPECT_EQ(watch(5, {"ID"}), ExitCode::deviceError);
   EXPECT_EQ(board.out, "ID  0x0000\nID  0x0000\n");
   EXPECT_EQ(board.err, "tarnreg: error: cannot read ID: no acknowledge\n");
   EXPECT_THAT(board.journal(), SizeIs(5));
}

TEST_F(Watch, AFailureThatChangesOrComesBackIsNews) {
   board.state->readFaults["ID"] = fail;
   time.events[1] = [&] {
      board.state->readFaults["ID"] = [] { throw std::runtime_error("bus hangs"); };
   };
   watch(2, {"ID"});
   EXPECT_EQ(board.out, "");
   EXPECT_EQ(board.err, "tarnreg: error: cannot read ID: no acknowledge\n"
                        "tarnreg: error: cannot read ID: bus hangs\n");
}

TEST_F(Watch, AnUnknownNameIsReportedAndTheOthersAreWatched) {
   EXPECT_EQ(watch(1, {"NOPE", "ID"}), ExitCode::unknownName);
   EXPECT_EQ(board.out, "ID  0x0000\n");
}

TEST_F(Watch, NothingToWatchIsOverAtOnce) {
   EXPECT_EQ(watch(0, {"NOPE"}), ExitCode::unknownName);
   EXPECT_THAT(time.waits, IsEmpty());
}

TEST_F(Watch, AsADocumentItNeedsAnEnd) {
   board.json = true;
   EXPECT_THROW(watch(0), TarnReg::Failure);
   EXPECT_THAT(board.journal(), IsEmpty());
   time.events[1] = [&] { board.state->values["ID"] = 5; };
   watch(2, {"ID"});
   ASSERT_THAT(board.document["registers"], SizeIs(2));
   EXPECT_EQ(board.document["registers"][0]["value"], 0);
   EXPECT_EQ(board.document["registers"][1]["value"], 5);
}

// -- poll ----------------------------------------------------------------------------------------

TEST_F(Poll, IsOverAtOnceWhenTheConditionHolds) {
   board.state->values["ID"] = 0x12;
   EXPECT_EQ(poll({"ID=0x12"}), ExitCode::ok);
   EXPECT_EQ(board.out, "ID  0x0012\n");
   EXPECT_THAT(time.waits, IsEmpty());
   EXPECT_THAT(board.journal(), ElementsAre("read ID"));
}

TEST_F(Poll, ReadsUntilItHolds) {
   time.events[2] = [&] { board.state->values["ID"] = 3; };
   EXPECT_EQ(poll({"ID=3"}), ExitCode::ok);
   EXPECT_THAT(time.waits, ElementsAre(100ms, 100ms));
   EXPECT_EQ(board.out, "ID  0x0003\n");
}

TEST_F(Poll, LooksOnceMoreWhenTheTimeIsOver) {
   time.events[3] = [&] { board.state->values["ID"] = 3; };
   EXPECT_EQ(poll({"ID=3"}), ExitCode::ok);
   EXPECT_THAT(time.waits, ElementsAre(100ms, 100ms, 50ms));
}

TEST_F(Poll, GivesUpWithTheLastReason) {
   EXPECT_EQ(poll({"ID=3"}), ExitCode::timeout);
   EXPECT_EQ(text, "timed out after 0.25 s: ID is 0x0, not 0x3");
   EXPECT_EQ(board.out, "");
   EXPECT_THAT(board.journal(), SizeIs(4));
}

TEST_F(Poll, LooksAtTheBitsOfAMaskOnly) {
   board.state->values["ID"] = 0xf2;
   EXPECT_EQ(poll({"ID&0x0f=2"}), ExitCode::ok);
   EXPECT_EQ(board.out, "ID  0x00f2\n");
   EXPECT_EQ(poll({"ID&0b1=1"}), ExitCode::timeout);
   EXPECT_EQ(text, "timed out after 0.25 s: ID is 0xf2, not 0x1 in the bits 0x1");
}

TEST_F(Poll, ARegisterMayHaveTheSignInItsName) {
   board.state->values["A&B"] = 6;
   EXPECT_EQ(poll({"A&B=6"}), ExitCode::ok);
   EXPECT_EQ(poll({"A&B&4=4"}), ExitCode::ok);
}

TEST_F(Poll, SeveralConditionsHoldInOneRound) {
   board.state->values["ID"] = 1;
   time.events[1] = [&] { board.state->values["FAN[0]_PWM"] = 2; };
   time.events[2] = [&] { board.state->values["FAN[1]_PWM"] = 2; };
   EXPECT_EQ(poll({"ID=1", "FAN*=2"}), ExitCode::ok);
   EXPECT_EQ(board.out, "ID          0x0001\nFAN[0]_PWM  0x02\nFAN[1]_PWM  0x02\n");
   EXPECT_THAT(time.waits, SizeIs(2));
}

TEST_F(Poll, AFailingReadIsTriedAgain) {
   board.state->readFaults["ID"] = fail;
   board.state->values["ID"] = 1;
   time.events[1] = [&] { board.state->readFaults.clear(); };
   EXPECT_EQ(poll({"ID=1"}), ExitCode::ok);
   EXPECT_EQ(board.err, "");

   board.state->readFaults["ID"] = fail;
   EXPECT_EQ(poll({"ID=1"}), ExitCode::timeout);
   EXPECT_EQ(text, "timed out after 0.25 s: cannot read ID: no acknowledge");
}

TEST_F(Poll, RefusesConditionsThatAreNoneOrCanNeverHold) {
   const std::map<std::string, std::string> bad{
      {"ID", "ID: a condition is NAME=VALUE or NAME&MASK=VALUE"},
      {"=1", "=1: a condition is NAME=VALUE or NAME&MASK=VALUE"},
      {"ID&0x0f=0x10", "ID&0x0f=0x10: never, 0x10 has bits that the mask leaves out"},
      {"ID=0x10000", "0x10000 does not fit in the 16 bits of ID"},
   };
   for (const auto& [condition, reason] : bad) {
      EXPECT_EQ(poll({condition}), ExitCode::usage);
      EXPECT_EQ(text, reason);
   }
   EXPECT_EQ(poll({"ID=x"}), ExitCode::usage);
   EXPECT_EQ(poll({"ID&x=1"}), ExitCode::usage);
   EXPECT_EQ(poll({"ID=1", "NOPE=1"}), ExitCode::unknownName);
   EXPECT_THAT(board.journal(), IsEmpty());
}

} // namespace
