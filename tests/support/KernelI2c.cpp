#include "tests/support/KernelI2c.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace TestSupport {

KernelI2c* KernelI2c::current = nullptr;

KernelI2c::KernelI2c() : _path(_dir.write("i2c-7", "")) {
   current = this;
}

KernelI2c::~KernelI2c() {
   current = nullptr;
}

void KernelI2c::replace() {
   ::rename(_dir.write("another", "").c_str(), _path.c_str());
}

void KernelI2c::remove() {
   ::unlink(_path.c_str());
}

bool KernelI2c::isOurs(int fd) const {
   struct stat mine {};
   struct stat other {};
   return ::stat(_path.c_str(), &mine) == 0 && ::fstat(fd, &other) == 0 &&
          mine.st_dev == other.st_dev && mine.st_ino == other.st_ino;
}

std::vector<int> KernelI2c::openFds() const {
   std::vector<int> fds;
   for (int fd = 0; fd < 1024; ++fd) {
      if (isOurs(fd)) {
         fds.push_back(fd);
      }
   }
   return fds;
}

bool KernelI2c::isLocked() {
   const std::size_t noted = order.size();
   const int fd = ::open(_path.c_str(), O_RDWR | O_CLOEXEC);
   const bool free = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
   ::close(fd);
   order.resize(noted); // that was this check itself
   return !free;
}

void KernelI2c::locked(int operation) {
   {
      const std::scoped_lock lock(_mutex);
      order.push_back(operation == LOCK_EX   ? "lock exclusive"
                      : operation == LOCK_UN ? "unlock"
                                             : "lock " + std::to_string(operation));
   }
   if (operation == LOCK_EX && onLock) {
      onLock();
   }
}

int KernelI2c::answer(unsigned long request, void* argument) {
   { const std::scoped_lock lock(_mutex); }
   Call call;
   call.request = request;
   call.locked = isLocked();
   if (request == I2C_SLAVE) {
      order.push_back("address");
      call.address = reinterpret_cast<long>(argument);
   } else if (request == I2C_SMBUS) {
      return _transfer(argument, call);
   } else if (functions && request == I2C_RDWR) {
      return _messages(argument, call);
   } else if (functions && (request == I2C_TIMEOUT || request == I2C_RETRIES)) {
      call.value = reinterpret_cast<unsigned long>(argument);
   }
   calls.push_back(call);
   if (onCall) {
      onCall(call);
   }
   if (!onlyTransfersFail && !errors.empty()) {
      const int error = errors.front();
      errors.pop_front();
      if (error != 0) {
         errno = error;
         return -1;
      }
   }
   if (request == I2C_FUNCS && functions) {
      *static_cast<unsigned long*>(argument) = *functions;
      return 0;
   }
   if (request != I2C_SLAVE && !functions) {
      errno = ENOTTY;
      return -1;
   }
   return 0;
}

int KernelI2c::_note(const Call& call) {
   calls.push_back(call);
   if (onCall) {
      onCall(call);
   }
   if (!errors.empty()) {
      const int error = errors.front();
      errors.pop_front();
      if (error != 0) {
         errno = error;
         return -1;
      }
   }
   return 0;
}

int KernelI2c::_messages(void* argument, Call call) {
   const auto& request = *static_cast<i2c_rdwr_ioctl_data*>(argument);
   order.push_back("transfer");
   for (const i2c_msg* each = request.msgs; each != request.msgs + request.nmsgs; ++each) {
      Message& message = call.messages.emplace_back();
      message.address = each->addr;
      message.flags = each->flags;
      message.length = each->len;
      if ((each->flags & I2C_M_RD) == 0) {
         message.bytes.assign(each->buf, each->buf + each->len);
      }
   }
   if (_note(call) < 0) {
      return -1;
   }
   for (const i2c_msg* each = request.msgs; each != request.msgs + request.nmsgs; ++each) {
      for (std::size_t i = 0; (each->flags & I2C_M_RD) != 0 && i < each->len; ++i) {
         each->buf[i] = bytes[i % bytes.size()];
      }
   }
   return transferred.value_or(static_cast<int>(request.nmsgs));
}

int KernelI2c::_transfer(void* argument, Call call) {
   auto& request = *static_cast<i2c_smbus_ioctl_data*>(argument);
   call.readWrite = request.read_write;
   order.push_back(request.read_write == I2C_SMBUS_READ ? "read" : "write");
   call.command = request.command;
   call.size = request.size;
   if (request.size == I2C_SMBUS_I2C_BLOCK_DATA) {
      // A read gives no data, only how much it wants.
      const int given = request.read_write == I2C_SMBUS_READ ? 0 : request.data->block[0];
      call.block.assign(request.data->block, request.data->block + 1 + given);
   } else {
      call.word = request.data->word;
   }
   if (_note(call) < 0) {
      return -1;
   }
   if (request.read_write == I2C_SMBUS_READ) {
      if (request.size == I2C_SMBUS_I2C_BLOCK_DATA) {
         std::copy(bytes.begin(), bytes.end(), request.data->block + 1);
         request.data->block[0] = static_cast<std::uint8_t>(bytes.size());
      } else {
         request.data->word = word;
      }
   }
   return 0;
}

} // namespace TestSupport

// The library's calls come here, since a program's own symbols go before those of its libraries.
extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long request,
                                                            ...) noexcept {
   std::va_list arguments;
   va_start(arguments, request);
   void* argument = va_arg(arguments, void*);
   va_end(arguments);
   if (TestSupport::KernelI2c::current && TestSupport::KernelI2c::current->isOurs(fd)) {
      return TestSupport::KernelI2c::current->answer(request, argument);
   }
   using Ioctl = int (*)(int, unsigned long, void*);
   static const Ioctl next = reinterpret_cast<Ioctl>(::dlsym(RTLD_NEXT, "ioctl"));
   return next(fd, request, argument);
}

// So do its locks.
extern "C" __attribute__((visibility("default"))) int flock(int fd, int operation) noexcept {
   if (TestSupport::KernelI2c::current && TestSupport::KernelI2c::current->isOurs(fd)) {
      TestSupport::KernelI2c::current->locked(operation);
   }
   using Flock = int (*)(int, int);
   static const Flock next = reinterpret_cast<Flock>(::dlsym(RTLD_NEXT, "flock"));
   return next(fd, operation);
}
