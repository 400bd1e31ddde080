// What top leaves behind when something throws in the middle of it. All else is seen at a terminal
// by the tests of the command.

#include "tools/tarnreg/TopVerb.h"

#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/tools/Board.h"

namespace TarnReg {
namespace {

using testing::HasSubstr;

/// What is no error of an access, and so goes through all that top has.
struct Strange {};

/// Runs top on the terminal of this process until reading has thrown; ends the process.
[[noreturn]] void topThatEndsByAnException() {
   TestSupport::Board board("0,A,control,true,8\n");
   struct termios before = {};
   ::tcgetattr(STDIN_FILENO, &before);
   int reads = 0;
   board.state->readFaults["A"] = [&] {
      if (++reads == 3) {
         throw Strange();
      }
   };
   TopOptions options;
   options.interval = std::chrono::milliseconds(1);
   int code = 1;
   try {
      board.run(
         [&](Report& report, Console&) { topRegisters(*board.device, {"A"}, options, report); });
   } catch (const Strange&) {
      struct termios after = {};
      ::tcgetattr(STDIN_FILENO, &after);
      const bool isSame = after.c_lflag == before.c_lflag && after.c_iflag == before.c_iflag &&
                          after.c_oflag == before.c_oflag;
      code = isSame && reads == 3 ? 0 : 2;
   }
   ::_exit(code);
}

TEST(TopVerb, AnExceptionLeavesTheTerminalAsItWas) {
   int terminal = -1;
   struct winsize size = {.ws_row = 5, .ws_col = 40, .ws_xpixel = 0, .ws_ypixel = 0};
   const pid_t child = ::forkpty(&terminal, nullptr, nullptr, &size);
   ASSERT_NE(child, -1);
   if (child == 0) {
      ::setenv("TERM", "xterm", 1);
      topThatEndsByAnException();
   }
   std::string output;
   std::array<char, 4096> buffer{};
   // The terminal of a process that has ended fails to be read.
   for (ssize_t bytes = 0; (bytes = ::read(terminal, buffer.data(), buffer.size())) > 0;) {
      output.append(buffer.data(), static_cast<std::size_t>(bytes));
   }
   int status = 0;
   ASSERT_EQ(::waitpid(child, &status, 0), child);
   ::close(terminal);
   ASSERT_TRUE(WIFEXITED(status));
   EXPECT_EQ(WEXITSTATUS(status), 0) << output;
   EXPECT_THAT(output, HasSubstr("\033[?1049h"));
   const std::size_t left = output.rfind("\033[?1049l");
   ASSERT_NE(left, std::string::npos) << "the old screen is back";
   EXPECT_EQ(output.find("\033[?1049h", left), std::string::npos);
   EXPECT_GT(output.rfind("\033[?25h"), output.rfind("\033[?25l")) << "the cursor is shown";
}

} // namespace
} // namespace TarnReg
