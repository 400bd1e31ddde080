#include "TarnRegFile/CoreSmBase.h"

#include <algorithm>
#include <string>
#include <utility>

#include <absl/container/flat_hash_map.h>
#include <fmt/format.h>

#include "platform/entity/Fatal.h"
#include "platform/entity/TypeBuilder.h"
#include "platform/entity/Value.h"
#include "platform/tables/CorruptionException.h"
#include "platform/trace/Trace.h"

namespace TarnRegFile::Sable {

namespace {

TARN_TRACE_SOURCE(traceSource, "TarnRegFile/CoreSmBase");

constexpr const char* className = "CoreSmBase";
constexpr const char* notReady = "coreSm is not ready";
constexpr const char* notManaged = "register {} is not managed by {}";
constexpr const char* addressNotManaged = "register addr=0x{:x} is not managed by {}";
constexpr const char* calledWhenReady = "should not call {} when CoreSm is ready";
constexpr const char* retriedTooOften = "retried initial read more than {} times";
constexpr const char* noTransport = "{} has no transport";
constexpr const char* noConfig = "{} has no ShadowRegisterConfig";

constexpr std::uint32_t maxRetries = 3;

/// Reads repeated inside each other: a synchronous transport tells of the failure of a repeated
/// read before that is counted, so the count would not keep a dead device from using up the stack.
constexpr unsigned maxNestedRetries = 256;

template <typename... Args>
[[noreturn]] void fatal(const char* function, fmt::format_string<Args...> text, Args&&... args) {
   Platform::fatalAssertion(className, function, fmt::format(text, std::forward<Args>(args)...));
}

/// What `read` finds in a table; the empty value, once the table has been told, if it is damaged.
template <typename Entity, typename Read>
auto readOf(const Ptr<Entity>& entity, const Read& read) -> decltype(read(*entity)) {
   if (!entity) {
      return {};
   }
   try {
      return read(*entity);
   } catch (const Platform::Tables::CorruptionException& corruption) {
      entity->regMapHandleCorruption(corruption.what());
      return {};
   }
}

template <typename Entity>
std::optional<CoreRegister> entryOf(const Ptr<Entity>& entity, const CoreRegisterKey& key) {
   return readOf(entity, [&key](const Entity& table) { return table.regMap().get(key); });
}

} // namespace

struct CoreSmBase::Names {
   absl::flat_hash_map<std::uint32_t, String> byAddress;
};

CoreSmBase::CoreSmBase(const Ptr<SableCoreBase>& hwSableCore,
                       const Ptr<ShadowRegisterConfig>& shadowRegConfig,
                       const Ptr<ShadowRegisterStatus>& shadowRegStatus)
   : _hwSableCore(hwSableCore), _shadowRegConfig(shadowRegConfig),
     _shadowRegStatus(shadowRegStatus), _names(std::make_unique<Names>()),
     _hwSableCoreReactor(std::in_place, *this, &CoreSmBase::hwSableCoreDispatch),
     _shadowRegConfigReactor(std::in_place, *this, &CoreSmBase::shadowRegConfigDispatch) {
   // Should anything from here on throw, the reactors are silenced as members.
   _hwSableCoreReactor->notifierIs(_hwSableCore);
   _shadowRegConfigReactor->notifierIs(_shadowRegConfig);
   asyncHelperIs(Ptr<CoreSmBase>(this));
}

CoreSmBase::~CoreSmBase() {
   beingDestroyedIs();
   teardown();
}

void CoreSmBase::handleConstructed() {
   if (_initialized) {
      return;
   }
   try {
      handleInitialized();
   } catch (...) {
      teardown(); // the helper would keep what nobody else gets to know
      throw;
   }
}

const Platform::TypeData& CoreSmBase::staticType() {
   using Self = CoreSmBase;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::Sable::CoreSmBase", Node::staticType())
         .attribute<&Self::hwSableCore>("hwSableCore")
         .attribute<&Self::shadowRegConfig>("shadowRegConfig")
         .attribute<&Self::shadowRegStatus>("shadowRegStatus")
         .attribute<&Self::accessHw, &Self::accessHwIs>("accessHw")
         .attribute<&Self::hwGeneration>("hwGeneration")
         .attribute<&Self::asyncHelper>("asyncHelper")
         .attribute<&Self::transport>("transport")
         .collection<&Self::_addresses, &Self::regAddrToNameGet>("regAddrToName")
         .attribute<&Self::initSyncRetryCount>("initSyncRetryCount")
         .attribute<&Self::initialized>("initialized")
         .attribute<&Self::ready, &Self::readyIs>("ready")
         .attribute<&Self::coreName>("coreName")
         .attribute<&Self::hasNotificationActive, &Self::hasNotificationActiveIs>(
            "hasNotificationActive")
         .operation<&Self::doOnReadResult>("doOnReadResult", {"regName", "result", "value"})
         .operation<&Self::doOnNotifyResult>("doOnNotifyResult", {"regName", "value"})
         .operation<&Self::doOnWriteResult>("doOnWriteResult", {"regName", "result"})
         .operation<&Self::doOnReady>("doOnReady", {"ready"})
         .operation<&Self::regRead>("regRead", {"regName"})
         .operation<&Self::regWrite>("regWrite", {"regName", "value"})
         .operation<&Self::handleGeneration>("handleGeneration")
         .operation<&Self::teardown>("teardown")
         .build();
   return type;
}

void CoreSmBase::doOnReadResult(const String&, RegAccessResult, std::uint32_t) {}
void CoreSmBase::doOnNotifyResult(const String&, std::uint32_t) {}
void CoreSmBase::doOnWriteResult(const String&, RegAccessResult) {}

// -- attributes ----------------------------------------------------------------------------------

String CoreSmBase::coreName() const {
   return _hwSableCore ? _hwSableCore->name() : String();
}

void CoreSmBase::accessHwIs(bool accessHw) {
   store(_accessHw, accessHw, accessHwAttr);
}

Ptr<CoreSmAsyncHelper> CoreSmBase::asyncHelperIs(const Ptr<CoreSmBase>& parent) {
   if (_isTornDown) {
      return nullptr;
   }
   if (!_asyncHelper || _asyncHelper->parent() != parent) {
      store(_asyncHelper, Platform::make<CoreSmAsyncHelper>(parent), asyncHelperAttr);
   }
   return _asyncHelper;
}

void CoreSmBase::asyncHelperDel() {
   store(_asyncHelper, nullptr, asyncHelperAttr);
}

Ptr<TransportMethod> CoreSmBase::transportIs(const String& name) {
   if (!_transport || _transport->name() != name) {
      store(_transport, transportMethodFactory(name), transportAttr);
   }
   return _transport;
}

void CoreSmBase::transportDel() {
   store(_transport, nullptr, transportAttr);
}

String CoreSmBase::regAddrToNameGet(std::uint32_t addr) const {
   const auto found = _names->byAddress.find(addr);
   return found == _names->byAddress.end() ? String() : found->second;
}

void CoreSmBase::regAddrToNameIs(std::uint32_t addr, const String& name) {
   const auto [entry, isNew] = _names->byAddress.try_emplace(addr, name);
   if (!isNew) {
      if (entry->second == name) {
         return;
      }
      entry->second = name;
   }
   publish(regAddrToNameAttr, addr);
}

void CoreSmBase::regAddrToNameDel(std::uint32_t addr) {
   if (_names->byAddress.erase(addr) != 0) {
      publish(regAddrToNameAttr, addr);
   }
}

void CoreSmBase::regAddrToNameDelAll() {
   for (const std::uint32_t addr : _addresses()) {
      regAddrToNameDel(addr);
   }
}

std::size_t CoreSmBase::regAddrToNames() const noexcept {
   return _names->byAddress.size();
}

std::vector<std::uint32_t> CoreSmBase::_addresses() const {
   std::vector<std::uint32_t> addresses;
   addresses.reserve(regAddrToNames());
   for (const auto& [address, name] : _names->byAddress) {
      addresses.push_back(address);
   }
   std::sort(addresses.begin(), addresses.end());
   return addresses;
}

void CoreSmBase::initSyncRetryCountInc(std::uint32_t n) {
   _initSyncRetryCountIs(_initSyncRetryCount + n);
}

void CoreSmBase::_initSyncRetryCountIs(std::uint32_t count) {
   store(_initSyncRetryCount, count, initSyncRetryCountAttr);
}

void CoreSmBase::readyIs(bool ready) {
   if (_ready == ready || _isTornDown) {
      return;
   }
   const Ptr<CoreSmBase> held(this);
   _ready = ready;
   const unsigned changes = ++_readyChanges;
   publish(readyAttr);
   if (changes == _readyChanges) { // else an observer's is told by now
      handleReady(ready);
   }
}

// -- reactions -----------------------------------------------------------------------------------

void CoreSmBase::hwSableCoreDispatch(const Platform::Change& change) {
   if (_hasNotificationActive && change.attribute == SableCoreBase::generationAttr) {
      handleGeneration();
   }
}

void CoreSmBase::shadowRegConfigDispatch(const Platform::Change& change) {
   if (!_hasNotificationActive || change.attribute != ShadowRegisterConfig::regMapAttr) {
      return;
   }
   const CoreRegisterKey key = change.key.as<CoreRegisterKey>();
   if (_unchanged && _unchanged->key() == key) {
      // Whoever set it has been told. Only this once: an observer may have changed it since.
      const CoreRegister unchanged = *std::exchange(_unchanged, std::nullopt);
      if (entryOf(_shadowRegConfig, key) == unchanged) {
         return;
      }
   }
   handleShadowRegister(key);
}

void CoreSmBase::hasNotificationActiveIs(bool active) {
   if (_hasNotificationActive == active || _isTornDown) {
      return;
   }
   _hasNotificationActive = active;
   _hwSableCoreReactor->activeIs(active);
   _shadowRegConfigReactor->activeIs(active);
}

// -- generations ---------------------------------------------------------------------------------

Generation CoreSmBase::_modelGeneration() const noexcept {
   return _hwSableCore ? _hwSableCore->generation() : Generation();
}

std::size_t CoreSmBase::_members() const noexcept {
   return _hwSableCore ? _hwSableCore->registerDescs() : 0;
}

void CoreSmBase::handleInitialized() {
   if (_initialized || _isTornDown) {
      return;
   }
   const Ptr<CoreSmBase> held(this);
   if (_hwSableCore) {
      _hwSableCore->forEachRegisterDesc(
         [this](const String& name, const CoreRegisterDescriptor& descriptor) {
            regAddrToNameIs(descriptor.address, name);
         });
   }
   store(_initialized, true, initializedAttr);
   handleGeneration();
}

void CoreSmBase::handleGeneration() {
   if (_isTornDown) {
      return;
   }
   const Ptr<CoreSmBase> held(this);
   const Generation generation = _modelGeneration();
   TARN_TRACE(traceSource, 3, "handleGeneration", "currentGen=({},{}), newGen=({},{})",
              _hwGeneration.id, _hwGeneration.valid, generation.id, generation.valid);
   if (!generation.valid) {
      store(_hwGeneration, generation, hwGenerationAttr);
      if (_hwGeneration == generation) { // whoever heard of it may have brought another one
         readyIs(false);
      }
      return;
   }
   if (generation == _hwGeneration) {
      return;
   }
   readyIs(false);
   if (_isToDo(generation)) {
      _startSync(generation);
   }
}

/// Whoever is told on the way may have changed the generation, and that is done by then.
bool CoreSmBase::_isToDo(const Generation& generation) const noexcept {
   return !_isTornDown && generation == _modelGeneration() && generation != _hwGeneration;
}

void CoreSmBase::_startSync(const Generation& generation) {
   createTransport();
   TARN_TRACE(traceSource, 3, "handleGeneration", "done creating transport");
   if (!_isToDo(generation)) {
      return;
   }
   const Ptr<TransportMethod> transport = _transport;
   _statusDelAll();
   if (!_isToDo(generation) || _transport != transport) {
      return;
   }
   _initSyncRetryCountIs(0);
   store(_hwGeneration, generation, hwGenerationAttr);
   for (const String& regName : _hwSableCore->registerDescNames()) {
      if (_transport != transport) {
         return; // superseded while it was told of a result
      }
      transport->regRead(regName);
   }
}

void CoreSmBase::createTransport() {
   if (_isTornDown) {
      return;
   }
   transportDel();
   const Ptr<TransportMethod> transport = transportIs(coreName());
   if (transport->implPtr()) {
      return; // an observer has led to another generation's
   }
   transport->fullInit(_hwSableCore ? transportDescriptorOf(*_hwSableCore) : nullptr,
                       TransportMethodRegFile(_hwSableCore ? _hwSableCore->registerFile()
                                                           : Ptr<HardwareRegisterFile>()));
   transport->asyncHelperIs(_asyncHelper);
}

void CoreSmBase::handleInitSyncResult(const String& regName, RegAccessResult result,
                                      std::uint32_t value) {
   constexpr const char* function = "handleInitSyncResult";
   if (_isTornDown) {
      return; // of a transport that somebody else has kept
   }
   if (_ready) {
      fatal(function, calledWhenReady, function);
   }
   const Ptr<CoreSmBase> held(this);
   if (result != RegAccessResult::Success) {
      if (_initSyncRetryCount >= maxRetries || _nestedRetries >= maxNestedRetries) {
         fatal(function, retriedTooOften, maxRetries);
      }
      const Ptr<TransportMethod> transport = _requireTransport(function);
      struct Nesting {
         explicit Nesting(unsigned& depth) : depth_(depth) { ++depth_; }
         ~Nesting() { --depth_; }
         Nesting(const Nesting&) = delete;
         Nesting& operator=(const Nesting&) = delete;
         unsigned& depth_;
      };
      {
         const Nesting nesting(_nestedRetries);
         transport->regRead(regName);
      }
      // Only now: a result that came inside of the call was handled with the count as it was.
      if (_transport == transport) {
         initSyncRetryCountInc(1);
      }
      return;
   }
   updateShadowRegStatus(regName, value);
   const auto filled = readOf(_shadowRegStatus, [](const ShadowRegisterStatus& table) {
      return std::optional<std::size_t>(table.regMap().size());
   });
   if (filled != _members() || _hwGeneration == Generation() ||
       _hwGeneration != _modelGeneration()) {
      return;
   }
   readyIs(true);
   if (_ready) {
      TARN_TRACE(traceSource, 3, function, "CoreSm {} is ready", coreName());
   }
}

void CoreSmBase::handleReady(bool ready) {
   const Ptr<CoreSmBase> held(this);
   const unsigned changes = _readyChanges;
   handleShadowRegister();
   // Whoever was told of a write may have changed the generation, and with it the readiness, which
   // was told by then; or have taken the core down, of which nobody is told.
   if (changes == _readyChanges && !_isTornDown) {
      doOnReady(ready);
   }
}

// -- registers -----------------------------------------------------------------------------------

const CoreRegisterDescriptor* CoreSmBase::_findDescriptor(std::string_view regName) const noexcept {
   return _hwSableCore ? _hwSableCore->findRegisterDesc(regName) : nullptr;
}

const CoreRegisterDescriptor& CoreSmBase::_managed(const char* function,
                                                   const String& regName) const {
   const CoreRegisterDescriptor* descriptor = _findDescriptor(regName);
   if (!descriptor) {
      fatal(function, notManaged, regName, coreName());
   }
   return *descriptor;
}

void CoreSmBase::_requireReady(const char* function) const {
   if (!_ready) {
      Platform::fatalAssertion(className, function, notReady);
   }
}

Ptr<TransportMethod> CoreSmBase::_requireTransport(const char* function) const {
   if (!_transport) {
      fatal(function, noTransport, coreName());
   }
   return _transport;
}

std::uint32_t CoreSmBase::regRead(const String& regName) {
   constexpr const char* function = "regRead";
   _requireReady(function);
   const CoreRegisterKey key(_managed(function, regName).address);
   const std::uint32_t shadow = entryOf(_shadowRegStatus, key).value_or(CoreRegister(key)).value();
   if (_accessHw) {
      return _requireTransport(function)->regRead(regName);
   }
   TARN_TRACE(traceSource, 9, function, "read {} from shadow: value {}", regName, shadow);
   doOnReadResult(regName, RegAccessResult::Success, shadow);
   return shadow;
}

void CoreSmBase::regWrite(const String& regName, std::uint32_t value) {
   constexpr const char* function = "regWrite";
   _requireReady(function);
   const CoreRegister record(CoreRegisterKey(_managed(function, regName).address), value);
   if (!_shadowRegConfig) {
      fatal(function, noConfig, coreName());
   }
   const Ptr<CoreSmBase> held(this);
   if (_accessHw) {
      _shadowRegConfig->regMapDel(record.key());
      _shadowRegConfig->regMapIs(record);
      return;
   }
   if (entryOf(_shadowRegConfig, record.key()) != record) {
      _shadowRegConfig->regMapIs(record);
      return;
   }
   doOnWriteResult(regName, RegAccessResult::Success);
   // The hook may have wanted something else, which is then the last that was wanted.
   if (entryOf(_shadowRegConfig, record.key()) == record) {
      _configIs(record);
   }
}

/// Sets what the table has already. Others hear of that; here it is no change, and its result is
/// told: looking at the register again would find any difference of the status, and tell another.
void CoreSmBase::_configIs(const CoreRegister& record) {
   struct Scope {
      explicit Scope(std::optional<CoreRegister>& unchanged, const CoreRegister& record_)
         : unchanged_(unchanged), before_(std::exchange(unchanged, record_)) {}
      ~Scope() { unchanged_ = before_; }
      Scope(const Scope&) = delete;
      Scope& operator=(const Scope&) = delete;
      std::optional<CoreRegister>& unchanged_;
      const std::optional<CoreRegister> before_;
   };
   const Scope scope(_unchanged, record);
   _shadowRegConfig->regMapIs(record);
}

void CoreSmBase::handleShadowRegister() {
   if (!_shadowRegConfig) {
      return;
   }
   const Ptr<CoreSmBase> held(this);
   // What comes while these are written, which may take its time, is told by the table.
   std::vector<CoreRegisterKey> keys;
   readOf(_shadowRegConfig, [&keys](const ShadowRegisterConfig& table) {
      table.regMap().forEach([&keys](const CoreRegister& record) { keys.push_back(record.key()); });
      return true;
   });
   for (const CoreRegisterKey& key : keys) {
      handleShadowRegister(key);
   }
}

void CoreSmBase::handleShadowRegister(const CoreRegisterKey& key) {
   constexpr const char* function = "handleShadowRegister";
   TARN_TRACE(traceSource, 9, function, "addr={:x}", key.address());
   if (!_ready) {
      return;
   }
   const auto known = _names->byAddress.find(key.address());
   if (known == _names->byAddress.end()) {
      fatal(function, addressNotManaged, key.address(), coreName());
   }
   const CoreRegisterDescriptor* descriptor = _findDescriptor(known->second);
   if (descriptor && descriptor->notWritable) {
      TARN_TRACE(traceSource, 1, function, "register {} add={:x} is not writable!", known->second,
                 key.address());
      return;
   }
   const std::optional<CoreRegister> desired = entryOf(_shadowRegConfig, key);
   if (!desired || entryOf(_shadowRegStatus, key) == desired) {
      return;
   }
   const Ptr<CoreSmBase> held(this);
   const String name = known->second; // the write's observers may change the names
   TARN_TRACE(traceSource, 9, function, "write {} to transport: value {} )", name,
              desired->value());
   struct Scope {
      Scope(Write*& writes, const CoreRegisterKey& key_)
         : writes_(writes), write{key_, false, writes} {
         writes = &write;
      }
      ~Scope() { writes_ = write.outer; }
      Scope(const Scope&) = delete;
      Scope& operator=(const Scope&) = delete;
      Write*& writes_;
      Write write;
   };
   const Scope scope(_writes, key);
   _requireTransport(function)->regWrite(name, desired->value());
   if (!scope.write.isSuperseded) {
      _statusIs(*desired);
   }
}

void CoreSmBase::updateShadowRegStatus(const String& regName, std::uint32_t value) {
   const CoreRegisterDescriptor& descriptor = _managed("updateShadowRegStatus", regName);
   if (_shadowRegStatus) {
      // A write of the register that is under way is entered after it all the same.
      _shadowRegStatus->regMapIs(CoreRegister(CoreRegisterKey(descriptor.address), value));
   }
}

void CoreSmBase::_statusIs(const CoreRegister& record) {
   for (Write* write = _writes; write; write = write->outer) {
      write->isSuperseded = write->isSuperseded || write->key == record.key();
   }
   if (_shadowRegStatus) {
      _shadowRegStatus->regMapIs(record);
   }
}

void CoreSmBase::_statusDelAll() {
   for (Write* write = _writes; write; write = write->outer) {
      write->isSuperseded = true; // of another generation
   }
   if (_shadowRegStatus) {
      _shadowRegStatus->regMapDelAll();
   }
}

void CoreSmBase::teardown() {
   if (std::exchange(_isTornDown, true)) {
      return;
   }
   _hasNotificationActive = false;
   _hwSableCoreReactor.reset();
   _shadowRegConfigReactor.reset();
   _ready = false;
   // Whoever else has the transport has no use for it any more.
   if (const Ptr<TransportMethod> transport = std::exchange(_transport, nullptr)) {
      transport->handleDeletion();
   }
   // This may be what keeps the core.
   const Ptr<CoreSmAsyncHelper> helper = std::exchange(_asyncHelper, nullptr);
}

} // namespace TarnRegFile::Sable
