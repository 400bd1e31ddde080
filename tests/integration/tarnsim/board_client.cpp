// What the tests of tarnsim run under it: one scenario a run, chosen by the first argument. Exits
// with 0 when everything was as it should be, else says on standard error what was not.

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <linux/spi/spidev.h>
#include <setjmp.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

const char* const bus = "/dev/i2c-3";

#define EXPECT(condition)                                                                          \
   do {                                                                                            \
      if (!(condition)) {                                                                          \
         std::fprintf(stderr, "%s:%d: not so: %s (errno %d)\n", __FILE__, __LINE__, #condition,    \
                      errno);                                                                      \
         std::exit(1);                                                                             \
      }                                                                                            \
   } while (false)

template <typename Argument>
int fails(int fd, unsigned long request, Argument argument) {
   errno = 0;
   return ::ioctl(fd, request, argument) < 0 ? errno : 0;
}

int openBus(const char* path = bus, unsigned long address = 0x51) {
   const int fd = ::open(path, O_RDWR);
   EXPECT(fd >= 0);
   EXPECT(::ioctl(fd, I2C_SLAVE, address) == 0);
   return fd;
}

int smbus(int fd, int direction, int command, int size, i2c_smbus_data* data) {
   i2c_smbus_ioctl_data request{static_cast<__u8>(direction), static_cast<__u8>(command),
                                static_cast<__u32>(size), data};
   return fails(fd, I2C_SMBUS, &request);
}

/// The word at a command, or -errno.
int word(int fd, int command) {
   i2c_smbus_data data{};
   const int error = smbus(fd, I2C_SMBUS_READ, command, I2C_SMBUS_WORD_DATA, &data);
   return error ? -error : data.word;
}

int writeWord(int fd, int command, int value) {
   i2c_smbus_data data{};
   data.word = static_cast<__u16>(value);
   return smbus(fd, I2C_SMBUS_WRITE, command, I2C_SMBUS_WORD_DATA, &data);
}

void sharing() {
   const int one = openBus();
   const int other = openBus(bus, 0x52);
   const int copy = ::dup(one);
   EXPECT(word(one, 0x20) == 0x1234);
   EXPECT(word(other, 0x20) == -ENXIO);
   EXPECT(word(copy, 0x20) == 0x1234);
   EXPECT(::ioctl(copy, I2C_SLAVE, 0x52) == 0);
   EXPECT(word(one, 0x20) == -ENXIO);
   const pid_t child = ::fork();
   if (child == 0) {
      EXPECT(word(one, 0x20) == -ENXIO);
      EXPECT(::ioctl(one, I2C_SLAVE, 0x51) == 0);
      std::exit(0);
   }
   int status = -1;
   EXPECT(::waitpid(child, &status, 0) == child && status == 0);
   EXPECT(word(one, 0x20) == 0x1234);
   EXPECT(word(other, 0x20) == -ENXIO);
}

void errors() {
   const int fd = openBus();
   EXPECT(fails(fd, I2C_SLAVE, 0x80ul) == EINVAL);
   EXPECT(fails(fd, I2C_SLAVE_FORCE, 0x80ul) == EINVAL);
   EXPECT(fails(fd, I2C_SLAVE_FORCE, 0x51ul) == 0);
   EXPECT(fails(fd, I2C_TENBIT, 1ul) == EINVAL);
   EXPECT(fails(fd, I2C_TENBIT, 0ul) == 0);
   EXPECT(fails(fd, I2C_RETRIES, 3ul) == 0);
   EXPECT(fails(fd, I2C_TIMEOUT, ~0ul) == EINVAL);
   EXPECT(fails(fd, I2C_PEC, 0ul) == 0);
   unsigned long functions = 0;
   EXPECT(fails(fd, I2C_FUNCS, &functions) == 0);
   EXPECT((functions & I2C_FUNC_I2C) && (functions & I2C_FUNC_SMBUS_READ_I2C_BLOCK));
   EXPECT(!(functions & I2C_FUNC_SMBUS_PEC) && !(functions & I2C_FUNC_10BIT_ADDR));
   EXPECT(word(fd, 0x20) == 0x1234); // whatever failed left the address alone

   // Pointers to nowhere, and to what may not be written.
   void* const nowhere = reinterpret_cast<void*>(16);
   void* const fixed = ::mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
   EXPECT(fails(fd, I2C_FUNCS, nowhere) == EFAULT);
   EXPECT(fails(fd, I2C_FUNCS, fixed) == EFAULT);
   EXPECT(fails(fd, I2C_SMBUS, nowhere) == EFAULT);
   EXPECT(fails(fd, I2C_RDWR, nowhere) == EFAULT);
   EXPECT(smbus(fd, I2C_SMBUS_WRITE, 0, I2C_SMBUS_WORD_DATA,
                static_cast<i2c_smbus_data*>(nowhere)) == EFAULT);
   EXPECT(smbus(fd, I2C_SMBUS_READ, 0, I2C_SMBUS_WORD_DATA, static_cast<i2c_smbus_data*>(fixed)) ==
          EFAULT);
   EXPECT(smbus(fd, I2C_SMBUS_READ, 0, I2C_SMBUS_WORD_DATA, nullptr) == EINVAL);
   i2c_smbus_data data{};
   EXPECT(smbus(fd, I2C_SMBUS_READ, 0, 42, &data) == EINVAL);
   EXPECT(smbus(fd, 7, 0, I2C_SMBUS_BYTE, &data) == EINVAL);
   data.block[0] = 33;
   EXPECT(smbus(fd, I2C_SMBUS_WRITE, 0, I2C_SMBUS_I2C_BLOCK_DATA, &data) == EINVAL);

   // Sizes that would be dear to believe.
   std::vector<__u8> bytes(8193);
   std::vector<i2c_msg> messages(43, i2c_msg{0x51, I2C_M_RD, 1, bytes.data()});
   i2c_rdwr_ioctl_data request{messages.data(), 43};
   EXPECT(fails(fd, I2C_RDWR, &request) == EINVAL);
   request.nmsgs = 0xffffffff;
   EXPECT(fails(fd, I2C_RDWR, &request) == EINVAL);
   request.nmsgs = 0;
   EXPECT(fails(fd, I2C_RDWR, &request) == EINVAL);
   request.nmsgs = 42;
   EXPECT(::ioctl(fd, I2C_RDWR, &request) == 42);
   request.nmsgs = 1;
   messages[0].len = 8193;
   EXPECT(fails(fd, I2C_RDWR, &request) == EINVAL);
   messages[0].len = 8192;
   EXPECT(::ioctl(fd, I2C_RDWR, &request) == 1);
   messages[0].addr = 0x151;
   EXPECT(fails(fd, I2C_RDWR, &request) == ENXIO);
   messages[0] = i2c_msg{0x51, I2C_M_RD, 1, static_cast<__u8*>(nowhere)};
   EXPECT(fails(fd, I2C_RDWR, &request) == EFAULT);
   messages[0] = i2c_msg{0x51, I2C_M_RD | I2C_M_RECV_LEN, 1, bytes.data()};
   bytes[0] = 1;
   EXPECT(fails(fd, I2C_RDWR, &request) == EINVAL);
   request.msgs = nullptr;
   EXPECT(fails(fd, I2C_RDWR, &request) == EINVAL);
}

/// The same requests on other files are the kernel's.
void others() {
   const int null = ::open("/dev/null", O_RDWR);
   EXPECT(fails(null, I2C_SLAVE, 0x51ul) == ENOTTY);
   EXPECT(fails(null, I2C_SMBUS, 0ul) == ENOTTY);
   EXPECT(fails(null, SPI_IOC_MESSAGE(1), 0ul) == ENOTTY);
   EXPECT(fails(-1, I2C_SLAVE, 0x51ul) == EBADF);
   EXPECT(fails(777, I2C_SLAVE, 0x51ul) == EBADF);
   const int fd = ::open(bus, O_RDWR);
   EXPECT(fails(fd, SPI_IOC_MESSAGE(1), 0ul) == ENOTTY);
   // Plain reads and writes are not simulated, and must not seem to be.
   char byte = 0;
   EXPECT(::read(fd, &byte, 1) == 0);
   EXPECT(::write(fd, &byte, 1) < 0 && errno == ENOSPC);
}

void locks() {
   const int one = openBus();
   const int other = openBus();
   EXPECT(::flock(one, LOCK_EX) == 0);
   EXPECT(word(one, 0x20) == 0x1234);
   EXPECT(::flock(other, LOCK_EX | LOCK_NB) < 0 && errno == EWOULDBLOCK);
   EXPECT(::close(one) == 0); // nobody else holds the file: the lock is gone at once
   EXPECT(::flock(other, LOCK_EX | LOCK_NB) == 0);
}

void threads() {
   constexpr int count = 8;
   constexpr int rounds = 100;
   std::vector<std::thread> running;
   std::atomic<int> wrong{0};
   for (int t = 0; t < count; ++t) {
      running.emplace_back([t, &wrong] {
         const int fd = openBus();
         for (int i = 0; i < rounds; ++i) {
            if (writeWord(fd, t, i) != 0 || word(fd, t) != i) {
               ++wrong;
            }
         }
         ::close(fd);
      });
   }
   for (std::thread& thread : running) {
      thread.join();
   }
   EXPECT(wrong == 0);
}

void processes() {
   constexpr int count = 4;
   constexpr int rounds = 100;
   const int fd = openBus();
   for (int t = 0; t < count; ++t) {
      if (::fork() == 0) {
         for (int i = 0; i < rounds; ++i) {
            EXPECT(writeWord(fd, t, i) == 0);
            EXPECT(word(fd, t) == i);
         }
         std::exit(0);
      }
   }
   for (int t = 0; t < count; ++t) {
      int status = -1;
      EXPECT(::wait(&status) > 0 && status == 0);
   }
}

/// While transfers hang on one bus, more than there are threads for, another bus goes on.
void slow_bus() {
   constexpr int count = 6;
   std::vector<pid_t> children;
   for (int i = 0; i < count; ++i) {
      const pid_t child = ::fork();
      if (child == 0) {
         const int fd = openBus("/dev/i2c-4", 0x52);
         i2c_smbus_data data{};
         (void)smbus(fd, I2C_SMBUS_READ, 0, I2C_SMBUS_BYTE_DATA, &data);
         std::exit(0);
      }
      children.push_back(child);
   }
   const int fd = openBus();
   for (int i = 0; i < 100; ++i) {
      EXPECT(word(fd, 0x20) == 0x1234);
   }
   for (const pid_t child : children) {
      EXPECT(::waitpid(child, nullptr, WNOHANG) == 0); // they still hang
      EXPECT(::kill(child, SIGKILL) == 0);
      EXPECT(::waitpid(child, nullptr, 0) == child);
   }
   EXPECT(word(fd, 0x20) == 0x1234);
}

/// Signals with a handler come in the middle of transfers; none is lost or done twice.
void signals() {
   struct sigaction action {};
   action.sa_handler = [](int) {};
   action.sa_flags = SA_RESTART;
   ::sigaction(SIGALRM, &action, nullptr);
   const itimerval often{{0, 500}, {0, 500}};
   ::setitimer(ITIMER_REAL, &often, nullptr);
   const int fd = openBus();
   for (int i = 0; i < 300; ++i) {
      EXPECT(writeWord(fd, 1, i) == 0);
      EXPECT(word(fd, 1) == i);
   }
}

void spi() {
   const int fd = ::open("/dev/spidev0.1", O_RDWR);
   EXPECT(fd >= 0);
   __u8 mode = SPI_MODE_3;
   EXPECT(fails(fd, SPI_IOC_WR_MODE, &mode) == 0);
   mode = 0;
   EXPECT(fails(fd, SPI_IOC_RD_MODE, &mode) == 0 && mode == SPI_MODE_3);
   __u32 wide = 0xffffffff;
   EXPECT(fails(fd, SPI_IOC_WR_MODE32, &wide) == EINVAL);
   EXPECT(fails(fd, SPI_IOC_RD_MODE32, &wide) == 0 && wide == SPI_MODE_3);
   __u8 bits = 16;
   EXPECT(fails(fd, SPI_IOC_WR_BITS_PER_WORD, &bits) == EINVAL);
   EXPECT(fails(fd, SPI_IOC_RD_BITS_PER_WORD, &bits) == 0 && bits == 8);
   __u32 speed = 123456;
   EXPECT(fails(fd, SPI_IOC_WR_MAX_SPEED_HZ, &speed) == 0);
   speed = 0;
   EXPECT(fails(fd, SPI_IOC_RD_MAX_SPEED_HZ, &speed) == 0 && speed == 123456);
   EXPECT(fails(fd, SPI_IOC_WR_MAX_SPEED_HZ, nullptr) == EFAULT);

   // A register write of three bytes, in two transfers with the chip select held.
   __u8 out[3] = {0x20, 0xbe, 0xef};
   __u8 in[2] = {9, 9};
   spi_ioc_transfer transfers[2] = {};
   transfers[0].tx_buf = reinterpret_cast<std::uintptr_t>(out);
   transfers[0].len = 1;
   transfers[1].tx_buf = reinterpret_cast<std::uintptr_t>(out + 1);
   transfers[1].rx_buf = reinterpret_cast<std::uintptr_t>(in);
   transfers[1].len = 2;
   EXPECT(::ioctl(fd, SPI_IOC_MESSAGE(2), transfers) == 3);
   EXPECT(in[0] == 0 && in[1] == 0);
   std::vector<__u8> large(4097);
   transfers[0].tx_buf = reinterpret_cast<std::uintptr_t>(large.data());
   transfers[0].len = 4096;
   EXPECT(::ioctl(fd, SPI_IOC_MESSAGE(1), transfers) == 4096);
   transfers[0].len = 4097;
   EXPECT(fails(fd, SPI_IOC_MESSAGE(1), transfers) == EMSGSIZE);
   transfers[0].len = 0xffffffff;
   EXPECT(fails(fd, SPI_IOC_MESSAGE(1), transfers) == EMSGSIZE);
   transfers[0].len = 3;
   transfers[0].tx_buf = 16;
   EXPECT(fails(fd, SPI_IOC_MESSAGE(1), transfers) == EFAULT);
   EXPECT(fails(fd, SPI_IOC_MESSAGE(1), reinterpret_cast<void*>(16)) == EFAULT);
   EXPECT(fails(fd, _IOC(_IOC_WRITE, SPI_IOC_MAGIC, 0, 33), transfers) == EINVAL);
}

sigjmp_buf gone;

bool reads(const volatile std::uint32_t* at, std::uint32_t& value) {
   if (sigsetjmp(gone, 1) != 0) {
      return false;
   }
   value = *at;
   return true;
}

int control(const std::string& command) {
   return std::system((std::string(std::getenv("TARNSIM")) + " control " + command).c_str());
}

void pci() {
   const int fd = ::open("/sys/bus/pci/devices/0000:ff:00.0/resource0", O_RDWR);
   EXPECT(fd >= 0);
   EXPECT(::lseek(fd, 0, SEEK_END) == 8192);
   void* const map = ::mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   EXPECT(map != MAP_FAILED);
   auto* const registers = static_cast<volatile std::uint32_t*>(map);
   EXPECT(registers[4] == 0x12345678);
   registers[5] = 0xcafe;
   EXPECT(control("get bar 0x14") == 0);
   EXPECT(control("set bar 0x18 0xbeef") == 0);
   EXPECT(registers[6] == 0xbeef);

   struct sigaction action {};
   action.sa_handler = [](int) { siglongjmp(gone, 1); };
   ::sigaction(SIGBUS, &action, nullptr);
   std::uint32_t value = 0;
   EXPECT(control("lose bar") == 0);
   EXPECT(!reads(registers + 5, value));
   EXPECT(control("set bar 0x1c 7") == 0);
   EXPECT(control("return bar") == 0);
   EXPECT(reads(registers + 5, value) && value == 0xcafe);
   EXPECT(reads(registers + 7, value) && value == 7);
   EXPECT(reads(registers + 2047, value) && value == 0);
}

} // namespace

int main(int argc, char** argv) {
   const std::map<std::string, std::function<void()>> scenarios = {
      {"sharing", sharing}, {"errors", errors},     {"others", others},
      {"locks", locks},     {"threads", threads},   {"processes", processes},
      {"signals", signals}, {"slow_bus", slow_bus}, {"spi", spi},
      {"pci", pci},
   };
   const auto found = scenarios.find(argc > 1 ? argv[1] : "");
   EXPECT(found != scenarios.end());
   found->second();
   return 0;
}
