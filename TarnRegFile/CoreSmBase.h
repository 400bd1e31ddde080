#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Change.h"
#include "platform/entity/Node.h"
#include "platform/entity/Notifiee.h"
#include "platform/entity/OwnedNotifiee.h"
#include "TarnRegFile/CoreRegister.h"
#include "TarnRegFile/CoreRegisterKey.h"
#include "TarnRegFile/CoreSmAsyncHelper.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/RegAccessResult.h"
#include "TarnRegFile/SableCore.h"
#include "TarnRegFile/ShadowRegisterConfig.h"
#include "TarnRegFile/ShadowRegisterStatus.h"
#include "TarnRegFile/TransportMethod.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

/// Keeps the shadow registers of one hardware core in step with the hardware.
///
/// For each valid generation of the core's model it makes a transport, reads all registers once
/// and enters them into the table of status. When that is complete it is ready: from then on it
/// serves reads and writes by name, and writes to the hardware what the table of configuration
/// wants to be different from the status, whoever has asked for it. Three failed first reads a
/// generation are repeated; a further one ends the process.
///
/// Derive from it and implement doOnReady(), which says how readiness changes; the other hooks say
/// how reads and writes ended.
///
///    class Fpga : public CoreSmBase {
///    public:
///       using CoreSmBase::CoreSmBase;
///       void doOnReady(bool ready) override { ... }
///    };
///    auto fpga = Platform::make<Fpga>(model, config, status);
///    ...
///    fpga->teardown();
///
/// Construction ends, in Platform::make(), with handleInitialized(), so that hooks find a complete
/// object: with a valid generation and a synchronous transport it is ready when make() returns, and
/// doOnReady(true) has been called. If any of that throws, nothing is left behind.
///
/// Core and async helper hold each other: whoever owns a core calls teardown() before letting it
/// go. An entity, held through Ptr; model, tables and transports are of its event loop's thread,
/// on which all of it happens. Hooks may do anything: access registers, change the model's
/// generation, take the core down. A transport's and a table's failures pass through to whoever
/// has made the change.
class TARN_API CoreSmBase : public Platform::Node {
public:
   static constexpr Platform::AttributeId accessHwAttr{"accessHw"};
   static constexpr Platform::AttributeId hwGenerationAttr{"hwGeneration"};
   static constexpr Platform::AttributeId asyncHelperAttr{"asyncHelper"};
   static constexpr Platform::AttributeId transportAttr{"transport"};
   static constexpr Platform::AttributeId regAddrToNameAttr{"regAddrToName"};
   static constexpr Platform::AttributeId initSyncRetryCountAttr{"initSyncRetryCount"};
   static constexpr Platform::AttributeId initializedAttr{"initialized"};
   static constexpr Platform::AttributeId readyAttr{"ready"};

   /// A core of `hwSableCore`, which may be null, as if it had no registers and were not there; so
   /// may the tables, which are then not used.
   CoreSmBase(const Ptr<SableCoreBase>& hwSableCore,
              const Ptr<ShadowRegisterConfig>& shadowRegConfig,
              const Ptr<ShadowRegisterStatus>& shadowRegStatus);
   ~CoreSmBase() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   // The hooks take the first virtual slots after the node's own, in this order.

   /// A read ended.
   virtual void doOnReadResult(const String& regName, RegAccessResult result, std::uint32_t value);

   /// For derived classes that have something to tell; the core itself never calls it.
   virtual void doOnNotifyResult(const String& regName, std::uint32_t value);

   /// A write ended.
   virtual void doOnWriteResult(const String& regName, RegAccessResult result);

   /// Readiness has changed.
   virtual void doOnReady(bool ready) = 0;

   // Attributes.

   const Ptr<SableCoreBase>& hwSableCore() const noexcept { return _hwSableCore; }
   const Ptr<ShadowRegisterConfig>& shadowRegConfig() const noexcept { return _shadowRegConfig; }
   const Ptr<ShadowRegisterStatus>& shadowRegStatus() const noexcept { return _shadowRegStatus; }

   /// The model's name.
   String coreName() const;

   /// Whether reads go to the hardware, and writes look at it again though nothing has changed.
   bool accessHw() const noexcept { return _accessHw; }
   void accessHwIs(bool accessHw);

   /// The generation that the transport and the shadow status belong to.
   Generation hwGeneration() const noexcept { return _hwGeneration; }

   const Ptr<CoreSmAsyncHelper>& asyncHelper() const noexcept { return _asyncHelper; }

   /// Makes sure that there is a helper whose parent is `parent`: the present one, or a new one.
   /// Null once the core was taken down.
   Ptr<CoreSmAsyncHelper> asyncHelperIs(const Ptr<CoreSmBase>& parent);
   void asyncHelperDel();

   /// The transport of the current generation; null until the first valid one.
   const Ptr<TransportMethod>& transport() const noexcept { return _transport; }

   /// Makes sure that there is a transport named `name`: the present one, or a new one, which is
   /// not initialised.
   Ptr<TransportMethod> transportIs(const String& name);
   void transportDel();

   // Names of the registers, by address. A change is published with the address as its key.

   /// The name at that address; empty if there is none.
   String regAddrToNameGet(std::uint32_t addr) const;
   void regAddrToNameIs(std::uint32_t addr, const String& name);
   void regAddrToNameDel(std::uint32_t addr);
   void regAddrToNameDelAll();
   /// How many there are.
   std::size_t regAddrToNames() const noexcept;

   /// Failed first reads that were repeated in this generation.
   std::uint32_t initSyncRetryCount() const noexcept { return _initSyncRetryCount; }
   void initSyncRetryCountInc(std::uint32_t n);

   bool initialized() const noexcept { return _initialized; }

   /// Whether the first reads of the current generation are complete.
   bool ready() const noexcept { return _ready; }

   /// Sets it by hand, with all that follows: a change runs handleReady().
   void readyIs(bool ready);

   // Reactions. To the model: handleGeneration() for a change of its generation. To the table of
   // configuration: handleShadowRegister() for a change of an entry.

   void hwSableCoreDispatch(const Platform::Change& change);
   void shadowRegConfigDispatch(const Platform::Change& change);

   /// Switches both off and on again. What changes meanwhile is missed.
   bool hasNotificationActive() const noexcept { return _hasNotificationActive; }
   void hasNotificationActiveIs(bool active);

   // The machine's steps.

   /// Ends construction; for Platform::make().
   void handleConstructed();

   /// Takes the names of the registers from the model, and enters the first generation. Only the
   /// first call does anything.
   void handleInitialized();

   /// Compares the model's generation with this core's, and acts on a difference.
   void handleGeneration();

   /// Makes the transport of the current generation. Throws what TransportMethod::fullInit() does.
   void createTransport();

   /// Takes a result of the initial sync. Fatal when the core is ready, and at the fourth failure
   /// of a generation.
   void handleInitSyncResult(const String& regName, RegAccessResult result, std::uint32_t value);

   /// Applies what is configured, and tells doOnReady().
   void handleReady(bool ready);

   // Registers.

   /// The value of a register: what the status has, 0 if it has none; or, with accessHw(), what
   /// the transport's regRead() returns. Fatal while the core is not ready, and for a name that
   /// the model does not have.
   std::uint32_t regRead(const String& regName);

   /// Sets the desired value of a register, which is written to the hardware if the status
   /// differs. A value that is configured already is a success at once, and costs no bus access;
   /// with accessHw(), the register is looked at again. Fatal as regRead().
   void regWrite(const String& regName, std::uint32_t value);

   /// Brings all registers of the table of configuration to their desired values.
   void handleShadowRegister();

   /// Brings one register to its desired value, if it has one: writes it if the status differs, and
   /// enters it into the status, however the write ends. While the core is not ready nothing is
   /// done. Fatal for an address that is none of the core's.
   void handleShadowRegister(const CoreRegisterKey& key);

   /// Enters a value into the status. Fatal for a name that the model does not have.
   void updateShadowRegStatus(const String& regName, std::uint32_t value);

   /// Ends the machine for good; harmless when repeated. Nothing is heard of model and tables any
   /// more, the transport is destroyed, with what it has in flight, and the helper is let go. The
   /// core is then not ready; doOnReady() is not told.
   void teardown();

private:
   using Dispatch = void (CoreSmBase::*)(const Platform::Change&);

   /// What hears of the changes of one source.
   class Reactor : public Platform::Notifiee {
   public:
      Reactor(CoreSmBase& core, Dispatch dispatch) : _core(core), _dispatch(dispatch) {}
      void onChange(const Platform::Change& change) override { (_core.*_dispatch)(change); }

   private:
      CoreSmBase& _core;
      const Dispatch _dispatch;
   };

   /// A write to the hardware under way, of which hooks may start others.
   struct Write {
      CoreRegisterKey key;
      bool isSuperseded = false; ///< the status has something newer
      Write* outer = nullptr;
   };

   struct Names;

   const CoreRegisterDescriptor* _findDescriptor(std::string_view regName) const noexcept;
   const CoreRegisterDescriptor& _managed(const char* function, const String& regName) const;
   void _requireReady(const char* function) const;
   Ptr<TransportMethod> _requireTransport(const char* function) const;
   std::vector<std::uint32_t> _addresses() const;
   Generation _modelGeneration() const noexcept;
   std::size_t _members() const noexcept;
   void _initSyncRetryCountIs(std::uint32_t count);
   bool _isToDo(const Generation& generation) const noexcept;
   void _startSync(const Generation& generation);
   void _configIs(const CoreRegister& record);
   void _statusIs(const CoreRegister& record);
   void _statusDelAll();

   const Ptr<SableCoreBase> _hwSableCore;
   const Ptr<ShadowRegisterConfig> _shadowRegConfig;
   const Ptr<ShadowRegisterStatus> _shadowRegStatus;
   bool _accessHw = false;
   Generation _hwGeneration;
   Ptr<CoreSmAsyncHelper> _asyncHelper;
   Ptr<TransportMethod> _transport;
   std::unique_ptr<Names> _names;
   std::uint32_t _initSyncRetryCount = 0;
   bool _initialized = false;
   bool _ready = false;

   bool _isTornDown = false;
   bool _hasNotificationActive = true;
   unsigned _nestedRetries = 0;
   unsigned _readyChanges = 0;
   Write* _writes = nullptr;               // innermost first
   std::optional<CoreRegister> _unchanged; // being set, though it is what the table has

   Platform::OwnedNotifiee<Reactor> _hwSableCoreReactor;
   Platform::OwnedNotifiee<Reactor> _shadowRegConfigReactor;
};

} // namespace TarnRegFile::Sable
