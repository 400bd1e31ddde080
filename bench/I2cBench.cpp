// What a register read by name costs above the kernel's calls that it makes. Runs under tarnsim
// with bench/i2c-bench.toml, which answers those calls; in real time, since the answering is done
// by another process.

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "platform/hardware/HardwareRegisterFile.h"
#include "TarnRegFile/I2cTransportDescriptor.h"
#include "TarnRegFile/TransportMethod.h"
#include "TarnRegFile/Utils.h"

namespace {

constexpr const char* devicePath = "/dev/i2c-3";
constexpr long blockAddress = 0x50;
constexpr long wordAddress = 0x51;
constexpr std::uint8_t registerAddress = 0x10;

/// The device, opened as a program without the library would.
class BareDevice {
public:
   explicit BareDevice(long address) : _fd(::open(devicePath, O_RDWR | O_CLOEXEC)) {
      if (_fd.fd() < 0 || ::ioctl(_fd.fd(), I2C_SLAVE, address) != 0) {
         std::fprintf(stderr, "bench_i2c runs under: tarnsim --board bench/i2c-bench.toml --\n");
         std::exit(1);
      }
   }

   void transfer(std::uint8_t readWrite, std::uint8_t command, std::uint32_t size,
                 i2c_smbus_data& data) {
      i2c_smbus_ioctl_data request{};
      request.read_write = readWrite;
      request.command = command;
      request.size = size;
      request.data = &data;
      if (::ioctl(_fd.fd(), I2C_SMBUS, &request) < 0) {
         std::abort();
      }
      benchmark::DoNotOptimize(data);
   }

private:
   const TarnRegFile::Utils::UnixFdRes _fd;
};

void bareBlockRead(BareDevice& device) {
   i2c_smbus_data data{};
   data.block[0] = 1;
   data.block[1] = registerAddress;
   device.transfer(I2C_SMBUS_WRITE, 0, I2C_SMBUS_I2C_BLOCK_DATA, data);
   data.block[0] = 4;
   device.transfer(I2C_SMBUS_READ, 0, I2C_SMBUS_I2C_BLOCK_DATA, data);
}

void bareWordRead(BareDevice& device) {
   i2c_smbus_data data{};
   device.transfer(I2C_SMBUS_READ, registerAddress, I2C_SMBUS_WORD_DATA, data);
}

TarnRegFile::Ptr<TarnRegFile::TransportMethod> device(long address,
                                                      TarnRegFile::I2cFlavour flavour) {
   const auto model = Hardware::hardwareRegisterFileFactory("bench");
   Hardware::HardwareRegister reg;
   reg.name = "A";
   reg.address = registerAddress;
   reg.width = 32;
   model->nameToRegMapIs(reg.name, reg);
   const auto method = TarnRegFile::transportMethodFactory("bench");
   method->raiseExceptionOnErrorIs(true);
   method->fullInit(TarnRegFile::i2cTransportDescriptorFactory(
                       devicePath, static_cast<std::int32_t>(address), flavour),
                    TarnRegFile::TransportMethodRegFile(model));
   return method;
}

enum class Measured { bare, byName };

double secondsOf(const auto& call) {
   const auto start = std::chrono::steady_clock::now();
   call();
   return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Reads in both ways by turns, each first in every other turn, and counts the time of one of
/// them: whatever disturbs the machine meets both.
template <Measured measured, TarnRegFile::I2cFlavour flavour>
void read(benchmark::State& state) {
   constexpr bool isBlock = flavour == TarnRegFile::I2cFlavour::dataBlock;
   constexpr long address = isBlock ? blockAddress : wordAddress;
   BareDevice bare(address);
   const auto method = device(address, flavour);
   const TarnRegFile::String name = "A";
   const auto readBare = [&] { isBlock ? bareBlockRead(bare) : bareWordRead(bare); };
   const auto readByName = [&] { benchmark::DoNotOptimize(method->regRead(name)); };
   bool bareFirst = false;
   for (auto _ : state) {
      bareFirst = !bareFirst;
      double seconds[2] = {};
      seconds[bareFirst ? 0 : 1] = bareFirst ? secondsOf(readBare) : secondsOf(readByName);
      seconds[bareFirst ? 1 : 0] = bareFirst ? secondsOf(readByName) : secondsOf(readBare);
      state.SetIterationTime(seconds[measured == Measured::bare ? 0 : 1]);
   }
   method->handleDeletion();
}

using enum Measured;
using enum TarnRegFile::I2cFlavour;
BENCHMARK(read<bare, dataBlock>)->Name("bareBlock")->UseManualTime();
BENCHMARK(read<byName, dataBlock>)->Name("readBlockByName")->UseManualTime();
BENCHMARK(read<bare, dataWord>)->Name("bareWord")->UseManualTime();
BENCHMARK(read<byName, dataWord>)->Name("readWordByName")->UseManualTime();

} // namespace
