#include "tools/tarnreg/Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <utility>

namespace TarnReg {

namespace {

// The other screen, without wrapping and without a cursor; and back.
constexpr std::string_view enter = "\033[?1049h\033[?7l\033[?25l";
constexpr std::string_view leave = "\033[0m\033[?25h\033[?7h\033[?1049l";

constexpr std::array<int, 5> ending = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT};

// Handlers see these; they are set before handlers are.
struct termios before = {};
volatile std::sig_atomic_t isOther = 0;
volatile std::sig_atomic_t hasToRedraw = 0;

void write(std::string_view text) {
   while (!text.empty()) {
      const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
      if (written > 0) {
         text.remove_prefix(static_cast<std::size_t>(written));
      } else if (errno != EINTR) {
         return;
      }
   }
}

// Of what handlers call, all may be called there.

void takeOver() {
   struct termios settings = before;
   settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
   settings.c_cc[VMIN] = 0;
   settings.c_cc[VTIME] = 0;
   ::tcsetattr(STDIN_FILENO, TCSANOW, &settings);
   write(enter);
   isOther = 1;
   hasToRedraw = 1;
}

void giveBack() {
   if (isOther != 0) {
      isOther = 0;
      write(leave);
      ::tcsetattr(STDIN_FILENO, TCSANOW, &before);
   }
}

void raiseUnhandled(int signal) {
   struct sigaction usual = {};
   usual.sa_handler = SIG_DFL;
   ::sigaction(signal, &usual, nullptr);
   sigset_t only;
   ::sigemptyset(&only);
   ::sigaddset(&only, signal);
   ::raise(signal);
   ::sigprocmask(SIG_UNBLOCK, &only, nullptr);
}

void onEnd(int signal) {
   giveBack();
   raiseUnhandled(signal);
}

void handlerIs(int signal, void (*handler)(int)) {
   struct sigaction action = {};
   action.sa_handler = handler;
   action.sa_flags = SA_RESTART; // an access of the device goes on
   ::sigfillset(&action.sa_mask);
   ::sigaction(signal, &action, nullptr);
}

void onStop(int /*signal*/) {
   const int error = errno;
   giveBack();
   raiseUnhandled(SIGTSTP);
   // Here it goes on.
   handlerIs(SIGTSTP, onStop);
   takeOver();
   errno = error;
}

void onResize(int /*signal*/) {
   hasToRedraw = 1;
}

void handlersAre(bool ours) {
   for (const int signal : ending) {
      handlerIs(signal, ours ? onEnd : SIG_DFL);
   }
   handlerIs(SIGTSTP, ours ? onStop : SIG_DFL);
   handlerIs(SIGWINCH, ours ? onResize : SIG_DFL);
}

Terminal::Key keyOf(std::string_view text) {
   using Key = Terminal::Key;
   constexpr std::pair<std::string_view, Key> keys[] = {
      {"q", Key::quit},         {"Q", Key::quit},
      {"p", Key::pause},        {" ", Key::pause},
      {"k", Key::up},           {"j", Key::down},
      {"g", Key::home},         {"G", Key::end},
      {"\033[A", Key::up},      {"\033[B", Key::down},
      {"\033OA", Key::up},      {"\033OB", Key::down},
      {"\033[5~", Key::pageUp}, {"\033[6~", Key::pageDown},
      {"\033[H", Key::home},    {"\033[F", Key::end},
      {"\033[1~", Key::home},   {"\033[4~", Key::end}};
   for (const auto& [sequence, key] : keys) {
      if (text == sequence) {
         return key;
      }
   }
   return Key::none;
}

} // namespace

bool Terminal::isThere() {
   const char* kind = std::getenv("TERM");
   return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1 && kind && *kind &&
          std::string_view(kind) != "dumb";
}

Terminal::Terminal() {
   ::tcgetattr(STDIN_FILENO, &before);
   handlersAre(true);
   takeOver();
}

Terminal::~Terminal() {
   giveBack();
   handlersAre(false);
}

Terminal::Size Terminal::size() const {
   struct winsize size = {};
   if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == -1 || size.ws_row == 0 || size.ws_col == 0) {
      return {24, 80};
   }
   return {size.ws_row, size.ws_col};
}

void Terminal::show(const std::vector<std::string>& lines) const {
   // In one go, and over what is there, so that nothing flickers.
   std::string out = "\033[H";
   for (std::size_t i = 0; i < lines.size(); ++i) {
      out += (i == 0 ? "" : "\r\n") + lines[i] + "\033[K";
   }
   write(out + "\033[J");
}

Terminal::Key Terminal::key(std::chrono::steady_clock::duration patience) const {
   sigset_t resize;
   sigset_t usual;
   ::sigemptyset(&resize);
   ::sigaddset(&resize, SIGWINCH);
   ::sigaddset(&resize, SIGTSTP);
   ::sigprocmask(SIG_BLOCK, &resize, &usual);
   struct pollfd input = {STDIN_FILENO, POLLIN, 0};
   const auto left = std::max(patience, std::chrono::steady_clock::duration::zero());
   const auto whole = std::chrono::floor<std::chrono::seconds>(left);
   const struct timespec time = {static_cast<time_t>(whole.count()),
                                 static_cast<long>((left - whole).count())};
   const int ready = hasToRedraw != 0 ? 0 : ::ppoll(&input, 1, &time, &usual);
   ::sigprocmask(SIG_SETMASK, &usual, nullptr);
   if (hasToRedraw != 0) {
      hasToRedraw = 0;
      return Key::redraw;
   }
   if (ready <= 0) {
      return Key::none;
   }
   std::array<char, 64> text{};
   const ssize_t count = ::read(STDIN_FILENO, text.data(), text.size());
   if (count <= 0) {
      return count == 0 || errno != EINTR ? Key::quit : Key::none;
   }
   const std::string_view pressed(text.data(), static_cast<std::size_t>(count));
   if (pressed.front() == '\033') {
      return keyOf(pressed);
   }
   // Of several that came together none is lost that ends it.
   return pressed.find_first_of("qQ") != std::string_view::npos ? Key::quit
                                                                : keyOf(pressed.substr(0, 1));
}

} // namespace TarnReg
