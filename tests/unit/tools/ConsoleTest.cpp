#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>

#include "tests/support/EnvironmentVariable.h"
#include "tools/tarnreg/Console.h"

namespace {

using TarnReg::ColorMode;
using TarnReg::Console;
using TestSupport::EnvironmentVariable;

TEST(Console, NamesTheKindOfAMessageWithoutColour) {
   std::istringstream in;
   std::ostringstream out;
   std::ostringstream err;
   Console console(in, out, err, false);
   console.error("bad");
   console.warning("odd");
   console.note("so");
   EXPECT_EQ(err.str(), "tarnreg: error: bad\ntarnreg: warning: odd\ntarnreg: note: so\n");
   EXPECT_EQ(out.str(), "");
}

TEST(Console, ColoursOnlyTheKindOfAMessage) {
   std::istringstream in;
   std::ostringstream out;
   std::ostringstream err;
   Console(in, out, err, true).error("bad");
   EXPECT_EQ(err.str(), "tarnreg: \033[1;31merror:\033[0m bad\n");
}

TEST(Console, AMessageIsOneLineWithoutControlCharacters) {
   std::istringstream in;
   std::ostringstream out;
   std::ostringstream err;
   Console(in, out, err, false).error("a\nb\x1b[31m\xff");
   EXPECT_EQ(err.str(), "tarnreg: error: a\\nb\\x1b[31m\\xff\n");
}

TEST(Console, AQuestionIsEscapedToo) {
   std::istringstream in("y\n");
   std::ostringstream out;
   std::ostringstream err;
   EXPECT_TRUE(Console(in, out, err, false).confirm("\x1b?"));
   EXPECT_EQ(err.str(), "\\x1b? [y/N] ");
   EXPECT_EQ(out.str(), "");
}

TEST(Console, TheEndOfTheInputEndsTheLineOfTheQuestion) {
   std::istringstream in;
   std::ostringstream out;
   std::ostringstream err;
   EXPECT_FALSE(Console(in, out, err, false).confirm("Sure?"));
   EXPECT_EQ(err.str(), "Sure? [y/N] \n");
}

TEST(Console, AlwaysAndNeverDoNotLookAtTheEnvironment) {
   const EnvironmentVariable noColor("NO_COLOR", "1");
   EXPECT_TRUE(Console::colorWanted(ColorMode::always));
   EXPECT_FALSE(Console::colorWanted(ColorMode::never));
   EXPECT_FALSE(Console::colorWanted(ColorMode::automatic));
}

TEST(Console, SaysThatDataCouldNotBeWritten) {
   std::istringstream in;
   std::ostringstream out;
   std::ostringstream err;
   Console console(in, out, err, false);
   EXPECT_TRUE(console.finish());
   out.setstate(std::ios::badbit);
   EXPECT_FALSE(console.finish());
   EXPECT_EQ(err.str(), "tarnreg: error: cannot write the output\n");
}

TEST(Console, ProgressIsOffUnlessSwitchedOn) {
   std::istringstream in;
   std::ostringstream out;
   std::ostringstream err;
   Console console(in, out, err, false);
   console.progress(1, 2);
   console.progressDone();
   EXPECT_EQ(err.str(), "");
   EXPECT_FALSE(Console::progressWanted(true) && ::isatty(STDERR_FILENO) == 0);
}

TEST(Console, ProgressWaitsUntilItIsWorthIt) {
   std::istringstream in;
   std::ostringstream out;
   std::ostringstream err;
   Console console(in, out, err, false);
   console.progressAfterIs(std::chrono::hours(1));
   console.progress(1, 2);
   EXPECT_EQ(err.str(), "");
}

TEST(Console, ProgressIsOneLineThatTheNextMessageReplaces) {
   std::istringstream in;
   std::ostringstream out;
   std::ostringstream err;
   Console console(in, out, err, false);
   console.progressAfterIs(std::chrono::seconds(0));
   console.progress(1, 20);
   EXPECT_EQ(err.str(), "\r\033[K1 of 20");
   console.error("bad");
   EXPECT_EQ(err.str(), "\r\033[K1 of 20\r\033[Ktarnreg: error: bad\n");
   console.progressDone();
   EXPECT_EQ(err.str(), "\r\033[K1 of 20\r\033[Ktarnreg: error: bad\n") << "gone already";
   EXPECT_EQ(out.str(), "");
}

} // namespace
