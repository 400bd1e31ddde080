#include "tools/tarnsim/ControlClient.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include <fmt/format.h>

#include "TarnRegFile/Utils.h"
#include "tools/tarnsim/SystemError.h"
#include "tools/tarnsim/UnixAddress.h"

namespace TarnSim {

ExitCode runControlClient(const std::string& path, const std::vector<std::string>& words) {
   const TarnRegFile::Utils::UnixFdRes socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
   const sockaddr_un address = unixAddress(path);
   if (socket.fd() < 0 ||
       ::connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      failErrno(path);
   }
   const std::string line = fmt::format("{}\n", fmt::join(words, " "));
   if (line.find('\n') != line.size() - 1) {
      throw Failure(ExitCode::usage, "a command is one line");
   }
   for (std::size_t sent = 0; sent < line.size();) {
      const ssize_t now = ::send(socket.fd(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
      if (now < 0) {
         failErrno(path);
      }
      sent += static_cast<std::size_t>(now);
   }
   std::string in;
   std::array<char, 65536> buffer{};
   while (true) {
      const ssize_t got = TEMP_FAILURE_RETRY(::recv(socket.fd(), buffer.data(), buffer.size(), 0));
      if (got <= 0) {
         throw Failure(path + ": the answer breaks off");
      }
      in.append(buffer.data(), static_cast<std::size_t>(got));
      std::size_t begin = 0;
      for (std::size_t end = 0; (end = in.find('\n', begin)) != std::string::npos;
           begin = end + 1) {
         const std::string text = in.substr(begin, end - begin);
         if (text.starts_with("= ")) {
            (void)std::printf("%s\n", text.c_str() + 2);
         } else if (text == "ok") {
            // Data that did not reach its reader is no success.
            return std::fflush(stdout) == 0 ? ExitCode::ok : ExitCode::general;
         } else {
            (void)std::fprintf(stderr, "tarnsim: %s\n", text.c_str());
            return ExitCode::general;
         }
      }
      in.erase(0, begin);
   }
}

} // namespace TarnSim
