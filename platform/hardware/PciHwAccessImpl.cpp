#include "platform/hardware/PciHwAccessImpl.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/entity/BusErrorGuard.h"
#include "platform/entity/Errors.h"
#include "platform/entity/TypeBuilder.h"
#include "platform/hardware/SigbusException.h"

namespace Hardware {

namespace {

constexpr const char* openFailed = "Error opening PCI register space {}";
constexpr const char* notAFile = "PCI register space {} is not an ordinary file";
constexpr const char* tooSmall =
   "PCI register space {} of {} bytes has no room for a 32-bit register";
constexpr const char* mapFailed = "Error mapping PCI register space {} of {} bytes";
constexpr const char* notMapped = "PCI register space {} is not mapped: no access at offset {:#x}";
constexpr const char* notAligned =
   "PCI register space {} of {} bytes: offset {:#x} is not aligned to 4 bytes";
constexpr const char* outside =
   "PCI register space {} of {} bytes has no 32-bit register at offset {:#x}";

constexpr std::uint64_t wordSize = sizeof(std::uint32_t);

/// Closes a descriptor; a mapping does not need it.
struct Closer {
   int fd;
   ~Closer() { ::close(fd); }
};

/// One word's access, for the guard to run.
struct Access {
   volatile std::uint32_t* const word;
   std::uint32_t value;
};

void load(void* access) noexcept {
   auto& wanted = *static_cast<Access*>(access);
   wanted.value = *wanted.word;
}

void store(void* access) noexcept {
   const auto& wanted = *static_cast<const Access*>(access);
   *wanted.word = wanted.value;
}

} // namespace

PciHwAccessImpl::PciHwAccessImpl(const Platform::String& name, const Platform::String& path)
   : HwAccessImpl(name), _path(path) {
   const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOCTTY);
   if (fd < 0) {
      Platform::throwErrno(fmt::format(openFailed, path));
   }
   const Closer closer{fd};
   struct stat status {};
   if (::fstat(fd, &status) != 0) {
      Platform::throwErrno(fmt::format(openFailed, path));
   }
   if (!S_ISREG(status.st_mode)) {
      Platform::throwError(ENODEV, fmt::format(notAFile, path));
   }
   const auto size = static_cast<std::uint64_t>(status.st_size);
   if (size < wordSize) {
      Platform::throwError(EINVAL, fmt::format(tooSmall, path, size));
   }
   void* const base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   if (base == MAP_FAILED) {
      Platform::throwErrno(fmt::format(mapFailed, path, size));
   }
   _base = static_cast<std::byte*>(base);
   _size = size;
   _wordsEnd = size - size % wordSize;
   readyIs(true);
}

PciHwAccessImpl::~PciHwAccessImpl() {
   beingDestroyedIs();
   _release();
}

const Platform::TypeData& PciHwAccessImpl::staticType() {
   using Self = PciHwAccessImpl;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("Hardware::PciHwAccessImpl", HwAccessImpl::staticType())
         .attribute<&Self::path>("path")
         .operation<&Self::unmap>("unmap")
         .build();
   return type;
}

std::uint32_t PciHwAccessImpl::read32(std::uint32_t offset) const {
   return *_word(offset);
}

void PciHwAccessImpl::write32(std::uint32_t offset, std::uint32_t value) {
   *_word(offset) = value;
}

std::uint32_t PciHwAccessImpl::guardedRead32(std::uint32_t offset) const {
   Access access{_word(offset), 0};
   if (!Platform::BusErrorGuard::run(_base, _size, load, &access)) {
      throw SigbusException();
   }
   return access.value;
}

void PciHwAccessImpl::guardedWrite32(std::uint32_t offset, std::uint32_t value) {
   Access access{_word(offset), value};
   if (!Platform::BusErrorGuard::run(_base, _size, Hardware::store, &access)) {
      throw SigbusException();
   }
}

void PciHwAccessImpl::unmap() {
   // First, so that who is told of it finds nothing to access.
   _release();
   readyIs(false);
}

volatile std::uint32_t* PciHwAccessImpl::_word(std::uint32_t offset) const {
   if (offset % wordSize != 0 || offset >= _wordsEnd) [[unlikely]] {
      _refuse(offset);
   }
   return reinterpret_cast<volatile std::uint32_t*>(_base + offset);
}

void PciHwAccessImpl::_refuse(std::uint32_t offset) const {
   if (!_base) {
      Platform::throwError(ENODEV, fmt::format(notMapped, _path, offset));
   }
   if (offset % wordSize != 0) {
      Platform::throwError(EINVAL, fmt::format(notAligned, _path, _size, offset));
   }
   Platform::throwError(ENXIO, fmt::format(outside, _path, _size, offset));
}

void PciHwAccessImpl::_release() noexcept {
   if (std::byte* const base = std::exchange(_base, nullptr)) {
      ::munmap(base, std::exchange(_size, 0));
      _wordsEnd = 0;
   }
}

Platform::Ptr<PciHwAccessImpl> pciHwAccessImplFactory(const Platform::String& name,
                                                      const Platform::String& path) {
   return Platform::make<PciHwAccessImpl>(name, path);
}

} // namespace Hardware
