#include <fcntl.h>
#include <unistd.h>

#include "tools/tarnreg/CommandLine.h"

namespace {

/// Occupies the standard descriptors that the caller closed, in a way that using them fails: a file
/// that is opened later would otherwise become standard output and be written over.
void occupyStandardStreams() {
   for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
      if (::fcntl(fd, F_GETFD) == -1) {
         ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
      }
   }
}

} // namespace

int main(int argc, char** argv) {
   occupyStandardStreams();
   return static_cast<int>(TarnReg::runCommandLine(argc, argv));
}
