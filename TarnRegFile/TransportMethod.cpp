#include "TarnRegFile/TransportMethod.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <limits>
#include <stdexcept>
#include <typeinfo>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/TypeBuilder.h"
#include "platform/hardware/SigbusException.h"
#include "platform/trace/Trace.h"
#include "TarnRegFile/HandleAccess.h"

namespace TarnRegFile {

namespace {

TARN_TRACE_SOURCE(traceSource, "TarnRegFile/TransportMethod");

constexpr const char* noImplementation = "This TransportMethod is not intialized";
constexpr const char* noDescriptor = "TransportMethod not initialized";
constexpr const char* unsupported = "The specified TransportDescriptor is not supported";
constexpr const char* nullDescriptor = "TransportDescriptor must not be null";
constexpr const char* emptyPath = "CSV path must not be empty";
constexpr const char* nullModel = "Either CSV or non-null regFile must be specified";
constexpr const char* initFailed = "TransportMethod implementation init failed";
constexpr const char* noAsyncArrays = "No async API for reg array block access.";
constexpr const char* oddBuffer = "Buffer does not contain a whole number of uint32_ts";
constexpr const char* arrayTooLarge = "Register array of {} words does not fit in 32 bits";
constexpr const char* noRegister = "Handle is of no register";
constexpr const char* foreignHandle =
   "Handle of register '{}' is not of this TransportMethod's transport";
constexpr const char* staleHandle =
   "Register '{}' has changed in the register list since its handle was made";

constexpr std::uint32_t failedRead = 0xFFFFFFFF;

/// What tryPerformIO() does, for any callable: the accesses of this class run on it without the
/// detour through a function object.
template <typename Action>
void guarded(TransportMethod& method, const String& regName, const Action& action) {
   try {
      action();
   } catch (const Hardware::SigbusException&) {
      const int error = errno;
      TARN_TRACE(traceSource, 0, "tryPerformIO",
                 "Got SIGBUS when performing operation on register '{}'", regName);
      errno = error;
      method.handleExceptionGeneric();
   } catch (const std::runtime_error& failure) {
      const int error = errno;
      TARN_TRACE(traceSource, 0, "tryPerformIO", "TransportMethod error on register '{}': {}",
                 regName, failure.what());
      errno = error;
      method.handleExceptionGeneric();
   }
}

std::uint64_t nextBinding() noexcept {
   static std::atomic<std::uint64_t> last{0};
   return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

/// How `impl` is accessed by handle; null when it is by name.
HandleAccess* handleAccess(BaseTransportMethodImpl& impl) {
   auto* access = dynamic_cast<HandleAccess*>(&impl);
   return access && access->handleAccessType() == typeid(impl) ? access : nullptr;
}

} // namespace

TransportMethod::TransportMethod(const String& name) : _name(name) {}

TransportMethod::~TransportMethod() {
   beingDestroyedIs();
   handleDeletion();
   // Who watches these objects sees the notifier go first; the members behind it go after it, in
   // the reverse of their order.
   _errorNotifier.reset();
}

Ptr<TransportMethod> TransportMethod::TransportMethodIs(const String& name) {
   return Platform::make<TransportMethod>(name);
}

Ptr<TransportMethod> transportMethodFactory(const String& name) {
   return TransportMethod::TransportMethodIs(name);
}

const Platform::TypeData& TransportMethod::staticType() {
   using Self = TransportMethod;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::TransportMethod", Node::staticType())
         .attribute<&Self::name>("name")
         .attribute<&Self::raiseExceptionOnError, &Self::raiseExceptionOnErrorIs>(
            "raiseExceptionOnError")
         .attribute<&Self::errorNotifier>("errorNotifier")
         .attribute<&Self::csvPath>("csvPath")
         .attribute<&Self::regFilePtr>("regFilePtr")
         .attribute<&Self::descriptorPtr>("descriptorPtr")
         .operation<&Self::init>("init", {"descriptor", "csvPath"})
         .operation<&Self::fullInit>("fullInit", {"descriptor", "regFile"})
         .operation<&Self::regRead>("regRead", {"regName"})
         .operation<&Self::regWrite>("regWrite", {"regName", "value"})
         .operation<&Self::asyncHelperIs>("asyncHelperIs", {"helper"})
         .operation<&Self::regReadArray>("regReadArray", {"regArrayName", "count"})
         .operation<&Self::regWriteArray>("regWriteArray", {"regArrayName", "buffer"})
         .operation<&Self::getRegArraySize>("getRegArraySize", {"regArrayName"})
         .operation<&Self::regNameToAddr>("regNameToAddr", {"regName"})
         .operation<&Self::regAddrToName>("regAddrToName", {"regAddr"})
         .operation<&Self::regList>("regList")
         .operation<&Self::hasRegName>("hasRegName", {"regName"})
         .operation<&Self::isAsync>("isAsync")
         .operation<&Self::dumpAll>("dumpAll")
         .operation<&Self::handleExceptionGeneric>("handleExceptionGeneric")
         .operation<&Self::handleDeletion>("handleDeletion")
         .build();
   return type;
}

void TransportMethod::raiseExceptionOnErrorIs(bool raise) {
   store(_raiseExceptionOnError, raise, raiseExceptionOnErrorAttr);
}

Ptr<TransportMethodError> TransportMethod::errorNotifierIs(const String& chipName) {
   if (!_errorNotifier || _errorNotifier->chipName() != chipName) {
      store(_errorNotifier, Platform::make<TransportMethodError>(chipName), errorNotifierAttr);
   }
   return _errorNotifier;
}

Ptr<TransportMethodError> TransportMethod::errorNotifierDel() {
   Ptr<TransportMethodError> previous = _errorNotifier;
   store(_errorNotifier, nullptr, errorNotifierAttr);
   return previous;
}

void TransportMethod::init(const Ptr<BaseTransportDescriptor>& descriptor, const String& csvPath) {
   fullInit(descriptor, TransportMethodRegFile(csvPath));
}

void TransportMethod::fullInit(const Ptr<BaseTransportDescriptor>& descriptor,
                               const TransportMethodRegFile& regFile) {
   store(_descriptorPtr, descriptor, descriptorPtrAttr);
   const TransportImplFactory& factory = _factory();
   if (regFile.containsCsvPath()) {
      if (regFile.csvPath().empty()) {
         Platform::throwError(EINVAL, emptyPath);
      }
      store(_csvPath, regFile.csvPath(), csvPathAttr);
      store(_regFilePtr, nullptr, regFilePtrAttr);
      _implFromFactory(factory, regFile.csvPath(), nullptr);
   } else {
      if (!regFile.regFileModel()) {
         Platform::throwError(EINVAL, nullModel);
      }
      store(_regFilePtr, regFile.regFileModel(), regFilePtrAttr);
      store(_csvPath, String(), csvPathAttr);
      _implFromFactory(factory, String(), regFile.regFileModel());
   }
   errorNotifierIs(_name);
}

const TransportImplFactory& TransportMethod::_factory() const {
   if (!_descriptorPtr) {
      Platform::throwError(EINVAL, nullDescriptor);
   }
   const auto found =
      implFactoryMap.find({_descriptorPtr->transportType(), _descriptorPtr->transportProtocol(),
                           _descriptorPtr->transportFlavour()});
   if (found == implFactoryMap.end()) {
      Platform::throwError(ENXIO, unsupported);
   }
   return found->second;
}

void TransportMethod::_implFromFactory(const TransportImplFactory& factory, const String& csvPath,
                                       const Ptr<HardwareRegisterFile>& regFile) {
   _impl = factory(_descriptorPtr, csvPath, regFile);
   _binding = nextBinding();
   if (!_impl) {
      Platform::throwErrno(initFailed);
   }
}

void TransportMethod::implPtrIs(BaseTransportMethodImpl* impl) noexcept {
   _impl = impl;
   _binding = nextBinding();
}

BaseTransportMethodImpl& TransportMethod::_implOrThrow() const {
   if (!_impl) {
      Platform::throwError(ENODEV, noImplementation);
   }
   return *_impl;
}

bool TransportMethod::_errorFlag() const noexcept {
   return _errorNotifier && _errorNotifier->error();
}

RegAccessResult TransportMethod::_result() const noexcept {
   return _errorFlag() ? RegAccessResult::Error : RegAccessResult::Success;
}

Ptr<AsyncHelperBase> TransportMethod::_helperForResult() const {
   // Asked also when the flag is set: without a descriptor every access ends with its error.
   const bool async = isAsync();
   // An observer of the failure may have called handleDeletion().
   if ((async && !_errorFlag()) || !_impl) {
      return nullptr;
   }
   return _impl->getAsyncHelper();
}

template <typename Read>
inline std::uint32_t TransportMethod::_read(const String& regName, const Read& read) {
   // An observer or the helper may drop what was the last reference.
   const Ptr<TransportMethod> held(this);
   std::uint32_t value = failedRead;
   guarded(*this, regName, [&] { value = read(); });
   if (const Ptr<AsyncHelperBase> helper = _helperForResult()) {
      helper->handleReadResult(regName, _result(), value);
   }
   return value;
}

template <typename Write>
inline void TransportMethod::_write(const String& regName, const Write& write) {
   const Ptr<TransportMethod> held(this);
   guarded(*this, regName, write);
   if (const Ptr<AsyncHelperBase> helper = _helperForResult()) {
      helper->handleWriteResult(regName, _result());
   }
}

std::uint32_t TransportMethod::regRead(const String& regName) {
   BaseTransportMethodImpl& impl = _implOrThrow();
   return _read(regName, [&] { return impl.regRead(regName.c_str()); });
}

void TransportMethod::regWrite(const String& regName, std::uint32_t value) {
   BaseTransportMethodImpl& impl = _implOrThrow();
   _write(regName, [&] { impl.regWrite(regName.c_str(), value); });
}

RegisterHandle TransportMethod::regHandle(const String& regName) const {
   BaseTransportMethodImpl& impl = _implOrThrow();
   const RegFileHelper& list = *impl.regFileHelper();
   RegisterHandle handle;
   handle._record = list.registerByName(regName);
   handle._name = regName;
   handle._binding = _binding;
   handle._list = list.regFilePtr();
   handle._listVersion = handle._list->version();
   // What derives from this class may override the accesses by name.
   handle._access = typeid(*this) == typeid(TransportMethod) ? handleAccess(impl) : nullptr;
   return handle;
}

inline void TransportMethod::_checkHandle(const RegisterHandle& handle) const {
   const BaseTransportMethodImpl& impl = _implOrThrow();
   if (handle._binding != _binding) [[unlikely]] {
      Platform::throwError(EINVAL, handle._binding == 0 ? String(noRegister)
                                                        : fmt::format(foreignHandle, handle._name));
   }
   const Ptr<HardwareRegisterFile>& list = impl.regFileHelper()->regFilePtr();
   if (list.get() != handle._list.get() || list->version() != handle._listVersion) [[unlikely]] {
      _look(handle, list);
   }
}

/// Whether the list, which is not as the handle last saw it, has the register as it was.
void TransportMethod::_look(const RegisterHandle& handle,
                            const Ptr<HardwareRegisterFile>& list) const {
   const HardwareRegister* record = list->findRegister(handle._name);
   if (!record || *record != handle._record) {
      Platform::throwError(ESTALE, fmt::format(staleHandle, handle._name));
   }
   handle._list = list;
   handle._listVersion = list->version();
}

std::uint32_t TransportMethod::regReadByHandle(const RegisterHandle& handle) {
   _checkHandle(handle);
   if (!handle._access) {
      return regRead(handle._name);
   }
   return _read(handle._name,
                [&] { return handle._access->regReadResolved(handle._name, handle._record); });
}

void TransportMethod::regWriteByHandle(const RegisterHandle& handle, std::uint32_t value) {
   _checkHandle(handle);
   if (!handle._access) {
      regWrite(handle._name, value);
      return;
   }
   _write(handle._name,
          [&] { handle._access->regWriteResolved(handle._name, handle._record, value); });
}

void TransportMethod::_checkArrayAccess() const {
   if (isAsync()) {
      Platform::throwErrno(noAsyncArrays);
   }
}

Bytes TransportMethod::regReadArray(const String& regArrayName, std::uint32_t count) {
   BaseTransportMethodImpl& impl = _implOrThrow();
   _checkArrayAccess();
   // A size that wrapped would leave the transport storing beyond the buffer.
   if (count > std::numeric_limits<std::uint32_t>::max() / sizeof(std::uint32_t)) {
      Platform::throwError(EOVERFLOW, fmt::format(arrayTooLarge, count));
   }
   const Ptr<TransportMethod> held(this);
   Bytes buffer(count * sizeof(std::uint32_t));
   guarded(*this, regArrayName, [&] {
      // The allocator aligns the bytes for any word.
      impl.regReadBlock(regArrayName.c_str(), reinterpret_cast<std::uint32_t*>(buffer.data()),
                        count);
   });
   return buffer;
}

void TransportMethod::regWriteArray(const String& regArrayName, const Bytes& buffer) {
   BaseTransportMethodImpl& impl = _implOrThrow();
   _checkArrayAccess();
   const std::size_t count = (buffer.size() + 3) / 4;
   if (buffer.size() != count * 4) {
      Platform::throwErrno(oddBuffer);
   }
   const Ptr<TransportMethod> held(this);
   guarded(*this, regArrayName, [&] {
      impl.regWriteBlock(regArrayName.c_str(),
                         reinterpret_cast<const std::uint32_t*>(buffer.data()),
                         static_cast<std::uint32_t>(count));
   });
}

std::uint32_t TransportMethod::getRegArraySize(const String& regArrayName) {
   return _implOrThrow().regFileHelper()->registerByName(regArrayName).arraySize;
}

std::uint32_t TransportMethod::regNameToAddr(const String& regName) const {
   return _implOrThrow().regFileHelper()->registerByName(regName).address;
}

String TransportMethod::regAddrToName(std::uint32_t regAddr) const {
   return _implOrThrow().regFileHelper()->findRegNameByAddr(regAddr);
}

Ptr<RegList> TransportMethod::regList() const {
   return _implOrThrow().regFileHelper()->regList();
}

bool TransportMethod::hasRegName(const String& regName) const {
   return _implOrThrow().regFileHelper()->hasRegName(regName);
}

const Ptr<RegFileHelper>& TransportMethod::regFileHelper() const {
   return _implOrThrow().regFileHelper();
}

bool TransportMethod::isAsync() const {
   if (!_descriptorPtr) {
      Platform::throwErrno(noDescriptor);
   }
   return std::find(asyncProtocols.begin(), asyncProtocols.end(),
                    _descriptorPtr->transportProtocol()) != asyncProtocols.end();
}

void TransportMethod::asyncHelperIs(const Ptr<AsyncHelperBase>& helper) {
   _implOrThrow().asyncHelperIs(helper);
}

void TransportMethod::dumpAll() {
   _implOrThrow().dumpAll();
}

void TransportMethod::handleExceptionGeneric() {
   // What happens on the way must not change the errno that is raised.
   const int error = errno;
   TARN_TRACE(traceSource, 0, "handleExceptionGeneric",
              "TransportMethod exception caught, Notifying agent: {}",
              _errorNotifier ? _errorNotifier->chipName() : _name);
   if (const Ptr<TransportMethodError> notifier = _errorNotifier) {
      notifier->errorIs(true);
   }
   if (_raiseExceptionOnError) {
      throw Platform::ErrnoException(error);
   }
}

void TransportMethod::handleDeletion() {
   _binding = nextBinding();
   // Cleared first: a transport that calls back while it is destroyed finds none.
   delete std::exchange(_impl, nullptr);
}

void tryPerformIO(TransportMethod* tm, const String& regName, const std::function<void()>& action) {
   guarded(*tm, regName, action);
}

} // namespace TarnRegFile
