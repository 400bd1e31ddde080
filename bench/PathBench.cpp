// The paths below a microsecond, run a given number of times and nothing else, for whoever counts
// instructions: two runs of different lengths differ by what so many operations execute, which
// repeats exactly where times do not. And what is kept in memory for a register.
//
//    bench_paths PATH SIZE COUNT     PATH one of those in `paths` below, over SIZE registers
//    bench_paths listMemory SIZE     prints bytes per register

#include <malloc.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/entity/EventLoop.h"
#include "platform/hardware/PciHwAccessImpl.h"
#include "platform/tables/CollectionControl.h"
#include "platform/tables/TableMount.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/PciTransportDescriptor.h"
#include "TarnRegFile/SableCore.h"
#include "TarnRegFile/SableCoreSm.h"
#include "TarnRegFile/TransportMethod.h"

namespace {

using namespace TarnRegFile::Sable;
using Platform::Ptr;
using Platform::Tables::TableDirectory;
using Platform::Tables::TableMount;
using Platform::Tables::TableRole;
using Platform::Tables::TableService;
using TarnRegFile::TransportMethod;

using Operation = std::function<void(std::size_t)>;

/// A directory in shared memory that is removed at the end.
class Directory {
public:
   Directory() {
      if (!::mkdtemp(_path.data())) {
         std::abort();
      }
   }
   ~Directory() { std::filesystem::remove_all(_path); }
   Directory(const Directory&) = delete;
   Directory& operator=(const Directory&) = delete;
   const std::string& path() const noexcept { return _path; }

private:
   std::string _path = "/dev/shm/tarn-bench-XXXXXX";
};

std::string nameOf(std::size_t i) {
   return "PORT_STATISTICS_COUNTER[" + std::to_string(i) + "]";
}

Ptr<Hardware::HardwareRegisterFile> listOf(std::size_t size) {
   auto list = Hardware::hardwareRegisterFileFactory("paths");
   list->addrBlockSizeIs(4);
   list->reserve(size);
   for (std::size_t i = 0; i < size; ++i) {
      Hardware::HardwareRegister record;
      record.name = nameOf(i);
      record.address = static_cast<std::uint32_t>(4 * i);
      record.width = 32;
      record.arraySize = 1;
      record.writable = true;
      list->nameToRegMapIs(record.name, record);
      list->addrToNameMapIs(record.address, record.name);
   }
   return list;
}

std::vector<std::string> shuffledNames(std::size_t size) {
   std::vector<std::string> names;
   for (std::size_t i = 0; i < size; ++i) {
      names.push_back(nameOf(i));
   }
   std::shuffle(names.begin(), names.end(), std::mt19937(1));
   return names;
}

/// A device, its names and their handles, and each register accessed once.
struct Device {
   Device(std::size_t size, const Ptr<TarnRegFile::BaseTransportDescriptor>& descriptor)
      : names(shuffledNames(size)) {
      method->fullInit(descriptor, TarnRegFile::TransportMethodRegFile(listOf(size)));
      for (const std::string& name : names) {
         method->regWrite(name, 0xFFFF);
         handles.push_back(method->regHandle(name));
      }
   }

   const std::vector<std::string> names;
   const Ptr<TransportMethod> method = TarnRegFile::transportMethodFactory("paths");
   std::vector<TarnRegFile::RegisterHandle> handles;
};

std::shared_ptr<Device> mock(std::size_t size) {
   return std::make_shared<Device>(size, TarnRegFile::mockTransportDescriptorFactory());
}

std::shared_ptr<Device> pci(std::size_t size) {
   const int fd = ::memfd_create("paths", MFD_CLOEXEC);
   if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(4 * size)) != 0) {
      std::abort();
   }
   return std::make_shared<Device>(
      size, TarnRegFile::pciTransportDescriptorFactory(
               Hardware::pciHwAccessImplFactory("paths", "/proc/self/fd/" + std::to_string(fd))));
}

/// A table of records of 8 bytes.
struct Table {
   explicit Table(std::size_t size)
      : mount(TableDirectory(directory.path()), "table",
              {.role = TableRole::writer, .shape = shape(), .create = true}),
        copy(mount.recordWords()) {
      for (std::uint32_t i = 0; i < size; ++i) {
         keys.push_back(4 * i);
      }
      std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
      for (const std::uint32_t& key : keys) {
         put(key, 1);
      }
   }

   static Platform::Tables::TableShape shape() {
      Platform::Tables::TableShape result;
      result.keyType = "Key";
      result.recordType = "Record";
      result.keySize = 4;
      result.recordSize = 8;
      return result;
   }
   static std::span<const std::uint8_t> bytesOf(const std::uint32_t& key) {
      return {reinterpret_cast<const std::uint8_t*>(&key), sizeof key};
   }
   void put(const std::uint32_t& key, std::uint64_t value) {
      mount.put(bytesOf(key), {reinterpret_cast<const std::uint8_t*>(&value), sizeof value});
   }
   void get(const std::uint32_t& key) { mount.get(bytesOf(key), copy); }

   const Directory directory;
   TableMount mount;
   std::vector<std::uint64_t> copy;
   std::vector<std::uint32_t> keys;
};

class Core : public CoreSmBase {
public:
   using CoreSmBase::CoreSmBase;
   void doOnReady(bool) override {}
};

/// A core on the mock, synced.
struct Owner {
   explicit Owner(std::size_t size)
      : service(loop, TableDirectory(directory.path())), names(shuffledNames(size)),
        model(
           sableCoreFactory("core", listOf(size), TarnRegFile::mockTransportDescriptorFactory())) {
      for (auto* const control : {&configControl, &statusControl}) {
         *control =
            Platform::Tables::collectionControlFactory(service, {.role = TableRole::writer});
      }
      config->regMapControlIs(configControl);
      configControl->mount();
      status->regMapControlIs(statusControl);
      statusControl->mount();
      core = Platform::make<Core>(model, config, status);
      sync();
   }
   ~Owner() {
      core->teardown();
      configControl->unmount();
      statusControl->unmount();
   }
   Owner(const Owner&) = delete;
   Owner& operator=(const Owner&) = delete;

   void sync() {
      model->generationIs({++generation, true});
      if (!core->ready()) {
         std::abort();
      }
   }

   const Directory directory;
   Platform::EventLoop loop;
   TableService service;
   const std::vector<std::string> names;
   Ptr<Platform::Tables::CollectionControl> configControl;
   Ptr<Platform::Tables::CollectionControl> statusControl;
   const Ptr<ShadowRegisterConfig> config = shadowRegisterConfigFactory("core/config");
   const Ptr<ShadowRegisterStatus> status = shadowRegisterStatusFactory("core/status");
   const Ptr<SableCoreBase> model;
   Ptr<Core> core;
   std::uint32_t generation = 0;
};

// What is done once, for operation number i; each has its setting from the maker.
const std::map<std::string, std::function<Operation(std::size_t size)>> paths = {
   {"readByName",
    [](std::size_t size) -> Operation {
       return [device = mock(size), size](std::size_t i) {
          device->method->regRead(device->names[i % size]);
       };
    }},
   {"readByHandle",
    [](std::size_t size) -> Operation {
       return [device = mock(size), size](std::size_t i) {
          device->method->regReadByHandle(device->handles[i % size]);
       };
    }},
   {"writeByName",
    [](std::size_t size) -> Operation {
       return [device = mock(size), size](std::size_t i) {
          device->method->regWrite(device->names[i % size], static_cast<std::uint32_t>(i));
       };
    }},
   {"writeByHandle",
    [](std::size_t size) -> Operation {
       return [device = mock(size), size](std::size_t i) {
          device->method->regWriteByHandle(device->handles[i % size],
                                           static_cast<std::uint32_t>(i));
       };
    }},
   {"pciByName",
    [](std::size_t size) -> Operation {
       return [device = pci(size), size](std::size_t i) {
          device->method->regRead(device->names[i % size]);
       };
    }},
   {"pciByHandle",
    [](std::size_t size) -> Operation {
       return [device = pci(size), size](std::size_t i) {
          device->method->regReadByHandle(device->handles[i % size]);
       };
    }},
   {"tableGet",
    [](std::size_t size) -> Operation {
       return [table = std::make_shared<Table>(size), size](std::size_t i) {
          table->get(table->keys[i % size]);
       };
    }},
   {"tablePut",
    [](std::size_t size) -> Operation {
       return [table = std::make_shared<Table>(size), size](std::size_t i) {
          table->put(table->keys[i % size], i);
       };
    }},
   {"ownerRead",
    [](std::size_t size) -> Operation {
       return [owner = std::make_shared<Owner>(size), size](std::size_t i) {
          owner->core->regRead(owner->names[i % size]);
       };
    }},
   // One operation is all registers.
   {"initialSync",
    [](std::size_t size) -> Operation {
       return [owner = std::make_shared<Owner>(size)](std::size_t) { owner->sync(); };
    }},
   // Nothing but being called: what the others have to be seen against.
   {"nothing", [](std::size_t) -> Operation { return [](std::size_t) {}; }},
};

std::size_t heapBytes() {
   const struct mallinfo2 heap = ::mallinfo2();
   return heap.uordblks + heap.hblkhd;
}

void listMemory(std::size_t size) {
   const std::size_t before = heapBytes();
   const auto list = listOf(size);
   std::printf("%zu\n", (heapBytes() - before) / size);
}

} // namespace

int main(int argc, char** argv) {
   const std::string path = argc > 1 ? argv[1] : "";
   const std::size_t size = argc > 2 ? std::stoul(argv[2]) : 0;
   if (argc == 3 && size > 0 && path == "listMemory") {
      listMemory(size);
      return 0;
   }
   const auto found = paths.find(path);
   if (argc != 4 || size == 0 || found == paths.end()) {
      std::fprintf(stderr, "usage: bench_paths PATH SIZE COUNT\n");
      return 2;
   }
   const Operation operation = found->second(size);
   const std::size_t count = std::stoul(argv[3]);
   for (std::size_t i = 0; i < count; ++i) {
      operation(i);
   }
   return 0;
}
