#include "TarnRegFile/RegisterFileStream.h"

#include <sys/stat.h>

#include <cerrno>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "TarnRegFile/RegisterLine.h"
#include "TarnRegFile/Utils.h"

namespace TarnRegFile {

namespace {

constexpr const char* openError = "Error opening CSV file {}";
constexpr const char* readError = "Error reading CSV file {}";

/// The errno to refuse a file of this kind with; 0 to accept it.
int refusal(mode_t mode) noexcept {
   if (S_ISDIR(mode)) {
      return EISDIR;
   }
   return S_ISCHR(mode) || S_ISBLK(mode) ? EINVAL : 0;
}

} // namespace

std::ifstream openRegisterFile(const String& path) {
   struct stat status {};
   if (::stat(path.c_str(), &status) == 0) {
      if (const int error = refusal(status.st_mode)) {
         throw Platform::ErrnoException(error, fmt::format(openError, path));
      }
   }
   std::ifstream in(path);
   if (!in.good()) {
      Platform::throwErrno(fmt::format(openError, path));
   }
   return in;
}

bool readRegisterFileHeader(std::ifstream& in, String& buffer) {
   buffer.assign(registerFileHeader.size(), '\0');
   in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
   if (!in || buffer != registerFileHeader) {
      return false;
   }
   std::string_view rest;
   Utils::getline_lea(in, buffer, rest);
   return true;
}

void checkReadToEnd(const std::ifstream& in, const String& path) {
   if (in.bad()) {
      Platform::throwErrno(fmt::format(readError, path));
   }
}

} // namespace TarnRegFile
