#include "tools/tarnsim/Filter.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <vector>

#include <fmt/format.h>
#include <linux/i2c-dev.h>
#include <linux/spi/spidev.h>
#include <seccomp.h>

#include "TarnRegFile/Utils.h"
#include "tools/tarnsim/SystemError.h"

#ifndef SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV
#define SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV (1UL << 5)
#endif

namespace TarnSim {

namespace {

using Context = std::unique_ptr<void, void (*)(scmp_filter_ctx)>;

void check(int result, const char* what) {
   if (result < 0) {
      errno = -result;
      failErrno(fmt::format("cannot build the system call filter ({})", what));
   }
}

void trap(scmp_filter_ctx context, std::uint64_t mask, std::uint64_t request) {
   // The kernel looks at the lower 32 bits of the request only; so does the filter.
   check(::seccomp_rule_add(context, SCMP_ACT_NOTIFY, SCMP_SYS(ioctl), 1,
                            SCMP_A1(SCMP_CMP_MASKED_EQ, mask, request)),
         "rule");
}

std::vector<sock_filter> program() {
   const Context context(::seccomp_init(SCMP_ACT_ALLOW), ::seccomp_release);
   if (!context) {
      throw Failure("cannot build the system call filter");
   }
   // A program for another architecture runs, with ioctls that the kernel answers.
   check(::seccomp_attr_set(context.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_ALLOW), "attribute");
   constexpr std::uint64_t all = 0xffffffff;
   for (const int request : {I2C_RETRIES, I2C_TIMEOUT, I2C_SLAVE, I2C_SLAVE_FORCE, I2C_TENBIT,
                             I2C_FUNCS, I2C_RDWR, I2C_PEC, I2C_SMBUS}) {
      trap(context.get(), all, static_cast<unsigned>(request));
   }
   for (const std::uint64_t request :
        {SPI_IOC_RD_MODE, SPI_IOC_WR_MODE, SPI_IOC_RD_LSB_FIRST, SPI_IOC_WR_LSB_FIRST,
         SPI_IOC_RD_BITS_PER_WORD, SPI_IOC_WR_BITS_PER_WORD, SPI_IOC_RD_MAX_SPEED_HZ,
         SPI_IOC_WR_MAX_SPEED_HZ, SPI_IOC_RD_MODE32, SPI_IOC_WR_MODE32}) {
      trap(context.get(), all, request);
   }
   // The number of messages is part of the request: any.
   constexpr std::uint64_t count = IOCSIZE_MASK;
   constexpr std::uint64_t message = _IOC(_IOC_WRITE, std::uint64_t{SPI_IOC_MAGIC}, 0, 0);
   trap(context.get(), all & ~count, message);

   const TarnRegFile::Utils::UnixFdRes file(
      static_cast<int>(::syscall(SYS_memfd_create, "filter", MFD_CLOEXEC)));
   if (file.fd() < 0) {
      failErrno("cannot build the system call filter (memfd_create)");
   }
   check(::seccomp_export_bpf(context.get(), file.fd()), "export");
   const off_t size = ::lseek(file.fd(), 0, SEEK_END);
   std::vector<sock_filter> program(static_cast<std::size_t>(size) / sizeof(sock_filter));
   if (::pread(file.fd(), program.data(), static_cast<std::size_t>(size), 0) != size) {
      failErrno("cannot build the system call filter (read)");
   }
   return program;
}

int load(const sock_fprog& program) {
   // With it, a signal that arrives while an answer is being made waits for the answer: without
   // it the ioctl would be started again, and go over the bus twice.
   constexpr unsigned long killable = SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV;
   constexpr unsigned long listener = SECCOMP_FILTER_FLAG_NEW_LISTENER;
   long fd = ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, listener | killable, &program);
   if (fd < 0 && errno == EINVAL) {
      fd = ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, listener, &program);
   }
   return static_cast<int>(fd);
}

} // namespace

int installFilter() {
   std::vector<sock_filter> instructions = program();
   const sock_fprog whole{static_cast<unsigned short>(instructions.size()), instructions.data()};
   int fd = load(whole);
   if (fd < 0 && errno == EACCES) {
      // Not allowed for one who could still gain privileges by executing something.
      if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0) {
         fd = load(whole);
      }
   }
   if (fd < 0 && errno == EBUSY) {
      throw Failure("the kernel forbids a second supervisor of system calls (seccomp user "
                    "notification): this process runs under one already, perhaps another tarnsim");
   }
   if (fd < 0) {
      failErrno("the kernel forbids to supervise system calls (seccomp user notification)");
   }
   return fd;
}

} // namespace TarnSim
