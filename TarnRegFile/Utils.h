#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <istream>
#include <string>
#include <string_view>

#include "TarnRegFile/Export.h"

/// Small helpers for file descriptors, locks and text. None of them shares state: all may be used
/// on any thread, each object by one thread at a time.
namespace TarnRegFile::Utils {

/// Owns a Unix file descriptor and closes it when destroyed. A negative descriptor means none.
class TARN_API UnixFdRes {
public:
   /// Takes ownership of `fd`, whatever its value.
   explicit UnixFdRes(int fd) noexcept : _fd(fd) {}

   /// Closes the descriptor. The result of close is ignored and close is not repeated: after a
   /// failed close the descriptor's number may already belong to somebody else.
   ~UnixFdRes() { _destruct(); }

   UnixFdRes(UnixFdRes&& other) noexcept : _fd(other._fd) { other._fd = -1; }

   /// Closes what this holds, then takes the other's descriptor. An object moved into itself
   /// closes its descriptor and holds none afterwards.
   UnixFdRes& operator=(UnixFdRes&& other) noexcept {
      _mov(other);
      return *this;
   }

   UnixFdRes(const UnixFdRes&) = delete;
   UnixFdRes& operator=(const UnixFdRes&) = delete;

   /// The descriptor held, -1 after it was released or moved away.
   int fd() const noexcept { return _fd; }

   /// Gives the descriptor up without closing it; read it with fd() first. The holder may be
   /// const, so that an owner that is passed around as const can still hand its descriptor over.
   void release() const noexcept { _fd = -1; }

private:
   void _mov(UnixFdRes& other) noexcept;
   void _destruct() noexcept;

   mutable std::int32_t _fd;
};

/// Holds an advisory whole-file lock (flock) on a descriptor that somebody else owns, and gives it
/// back when destroyed. The descriptor is never closed here and must outlive the lock.
///
/// The lock excludes other processes and other open descriptions of the same file; it is no lock
/// between threads that share one description.
class TARN_API UnixFlockRes {
public:
   /// Takes the lock, waiting as long as it takes. `mode` is LOCK_SH or LOCK_EX; with LOCK_NB as
   /// well the lock is asked for every millisecond until it is free, without bound, rather than
   /// refused.
   ///
   /// Throws std::runtime_error, and then holds nothing:
   /// - "Invalid fd": `fd` is negative;
   /// - "Unsupported lock mode": neither LOCK_SH nor LOCK_EX is asked for;
   /// - "Cannot unlock flock on constructor": LOCK_UN is asked for as well;
   /// - "flock error: " and the error's text: the system refuses.
   UnixFlockRes(int fd, int mode);

   /// Unlocks, once; the result is ignored.
   ~UnixFlockRes();

   UnixFlockRes(const UnixFlockRes&) = delete;
   UnixFlockRes& operator=(const UnixFlockRes&) = delete;

private:
   std::int32_t _fd = -1;
};

/// Calls `call` until it returns a value that is not negative, and returns that. A failure with
/// EINTR is repeated at once if `retryOnEintr`, one with EAGAIN after 1000 microseconds if
/// `retryOnEagain`, both without limit. Every other failure is returned as it came, with errno as
/// the call left it.
///
/// Throws std::bad_function_call for an empty `call`, and whatever `call` throws.
TARN_API long syscallAutoRetry(const std::function<long()>& call, bool retryOnEagain,
                               bool retryOnEintr);

/// Reads the next line of `stream` into `buffer`, and makes `line` a view of it without its line
/// end, be that LF or CR LF. One CR is left out of `line`, not more; it stays in `buffer`.
///
/// At the end of the stream, or when reading fails, `line` is empty and the returned stream is in
/// a failed state, so that `while (getline_lea(stream, buffer, line))` visits every line, a last
/// one without line end included. `line` is good until `buffer` changes.
TARN_API std::istream& getline_lea(std::istream& stream, std::string& buffer,
                                   std::string_view& line);

/// Takes the next field of `text`, from `pos` up to the next `delim` or the end, into `token`, and
/// moves `pos` behind that delimiter. Returns false, with `token` left alone, once `pos` has come
/// to the end. An empty text thus has no field, and a delimiter at the very end is not followed by
/// an empty one.
TARN_API bool tokenize(std::string_view text, std::size_t& pos, std::string_view& token,
                       char delim);

/// The current errno as number and text: "2 (No such file or directory)".
TARN_API std::string errnoMsg();

/// The decimal number that the whole of `str` spells, with `ok` set; or 0 with `ok` cleared if it
/// is no number, has anything behind the number, or is above 4294967295. Leading white space and a
/// sign are taken the way strtoul takes them. Changes errno.
TARN_API std::uint32_t strtouint32_checked(const char* str, bool& ok);

} // namespace TarnRegFile::Utils
