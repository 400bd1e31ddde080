#pragma once

#include <cstdint>
#include <functional>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Node.h"
#include "TarnRegFile/AsyncHelper.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/ImplFactoryMap.h"
#include "TarnRegFile/RegisterHandle.h"
#include "TarnRegFile/RegList.h"
#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/TransportMethodError.h"
#include "TarnRegFile/TransportMethodImpl.h"
#include "TarnRegFile/TransportMethodRegFile.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// The object through which a client reads and writes the registers of one device, by name.
///
///    Ptr<TransportMethod> device = transportMethodFactory("fan-cpld");
///    device->init(mockTransportDescriptorFactory(), "fan-cpld.csv");
///    device->regWrite("FAN[0]_PWM", 128);
///    std::uint32_t speed = device->regRead("FAN[0]_TACH");
///
/// A failing access never crashes the caller. It sets the sticky flag of errorNotifier() and, if
/// raiseExceptionOnError() is set, is raised as Platform::ErrnoException; otherwise a failed read
/// returns 0xFFFFFFFF, which a register may also hold: the flag is what tells.
///
/// Call order: construct, init() or fullInit() once, any accesses, handleDeletion(). It is an
/// entity, held through Ptr; one TransportMethod is used by one thread at a time.
class TARN_API TransportMethod : public Platform::Node {
public:
   static constexpr Platform::AttributeId raiseExceptionOnErrorAttr{"raiseExceptionOnError"};
   static constexpr Platform::AttributeId errorNotifierAttr{"errorNotifier"};
   static constexpr Platform::AttributeId csvPathAttr{"csvPath"};
   static constexpr Platform::AttributeId regFilePtrAttr{"regFilePtr"};
   static constexpr Platform::AttributeId descriptorPtrAttr{"descriptorPtr"};

   explicit TransportMethod(const String& name);
   ~TransportMethod() override;

   /// A new TransportMethod, not initialised.
   static Ptr<TransportMethod> TransportMethodIs(const String& name);

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   // regRead and regWrite take the first virtual slots after the node's own, in this order.

   /// Reads a register. A failed read returns 0xFFFFFFFF or raises (see above); an asynchronous
   /// transport returns 0, and the value reaches the async helper later. An installed helper is
   /// told of every result that is known at once.
   ///
   /// Throws std::system_error ENODEV (generic category) "This TransportMethod is not intialized"
   /// before initialisation and after handleDeletion().
   virtual std::uint32_t regRead(const String& regName);

   /// Writes a register. As regRead().
   virtual void regWrite(const String& regName, std::uint32_t value);

   // The same by handle: for callers that access the same registers again and again, and would
   // resolve the same names each time.

   /// Resolves the name of a register once and for all accesses with the present transport.
   /// Throws ENODEV as regRead() does, and what RegFileHelper::findRegisterByName() throws.
   RegisterHandle regHandle(const String& regName) const;

   /// What regRead() of the handle's name does: the same checks, accesses, trace, notification,
   /// results for the helper, and errors. Allocates nothing that regRead() does not. Of a class
   /// that overrides regRead() it calls the override.
   ///
   /// Throws, before anything else happens and whatever raiseExceptionOnError() says, beside
   /// ENODEV: std::system_error (generic category) EINVAL "Handle of register '{}' is not of this
   /// TransportMethod's transport" for one of another TransportMethod, or made before fullInit(),
   /// implPtrIs() or handleDeletion(); EINVAL "Handle is of no register" for an empty one; ESTALE
   /// "Register '{}' has changed in the register list since its handle was made", also when it is
   /// no longer there.
   std::uint32_t regReadByHandle(const RegisterHandle& handle);

   /// What regWrite() of the handle's name does. As regReadByHandle().
   void regWriteByHandle(const RegisterHandle& handle, std::uint32_t value);

   const String& name() const noexcept { return _name; }

   /// Whether a failed access is raised to the caller once it has been recorded; false at first.
   bool raiseExceptionOnError() const noexcept { return _raiseExceptionOnError; }
   void raiseExceptionOnErrorIs(bool raise);

   /// Who tells of failures; null before initialisation.
   const Ptr<TransportMethodError>& errorNotifier() const noexcept { return _errorNotifier; }

   /// Makes sure that there is an error notifier for `chipName`: the present one if it has that
   /// name, else a new one in its place.
   Ptr<TransportMethodError> errorNotifierIs(const String& chipName);

   /// Detaches the error notifier and returns it; null when there was none.
   Ptr<TransportMethodError> errorNotifierDel();

   /// The register list given at initialisation: the path, or the model.
   const String& csvPath() const noexcept { return _csvPath; }
   const Ptr<HardwareRegisterFile>& regFilePtr() const noexcept { return _regFilePtr; }

   /// The descriptor given to the last initialisation, also to one that failed.
   const Ptr<BaseTransportDescriptor>& descriptorPtr() const noexcept { return _descriptorPtr; }

   /// fullInit() with the CSV register list at `csvPath`.
   void init(const Ptr<BaseTransportDescriptor>& descriptor, const String& csvPath);

   /// Makes the transport that `descriptor` selects, over the register list `regFile`. To be
   /// called once: a second call does not destroy the transport of the first.
   ///
   /// Throws std::system_error: ENXIO (generic category) "The specified TransportDescriptor is not
   /// supported"; EINVAL (generic) "CSV path must not be empty", "Either CSV or non-null regFile
   /// must be specified", or for a null descriptor; with errno (system category) "TransportMethod
   /// implementation init failed"; and what the transport's constructor throws.
   void fullInit(const Ptr<BaseTransportDescriptor>& descriptor,
                 const TransportMethodRegFile& regFile);

   /// Installs a transport that the caller has made, and takes ownership. Neither destroys the
   /// one there nor makes an error notifier.
   void implPtrIs(BaseTransportMethodImpl* impl) noexcept;

   /// The transport, which stays this one's; null before initialisation and after
   /// handleDeletion(). For what only one kind of transport has.
   BaseTransportMethodImpl* implPtr() const noexcept { return _impl; }

   /// Reads `count` consecutive words of a register array: `count` * 4 bytes in host byte order,
   /// zero where a failed read stored nothing. No helper is called.
   ///
   /// Throws, beside what regRead() throws, std::system_error with errno (system category) "No
   /// async API for reg array block access." on an asynchronous transport, and EOVERFLOW (generic)
   /// when that many bytes do not fit in 32 bits. A transport without block access stops the
   /// process.
   Bytes regReadArray(const String& regArrayName, std::uint32_t count);

   /// Writes `buffer` as consecutive words. As regReadArray(); a size that is no multiple of 4
   /// throws std::system_error with errno (system category) "Buffer does not contain a whole
   /// number of uint32_ts".
   void regWriteArray(const String& regArrayName, const Bytes& buffer);

   // Queries of the register list. They throw ENODEV as regRead() does, and pass on what the
   // look-ups of RegFileHelper throw.

   std::uint32_t getRegArraySize(const String& regArrayName);
   std::uint32_t regNameToAddr(const String& regName) const;
   String regAddrToName(std::uint32_t regAddr) const;
   Ptr<RegList> regList() const;
   bool hasRegName(const String& regName) const;

   /// The register list itself, for tools that need every record; never null.
   const Ptr<RegFileHelper>& regFileHelper() const;

   /// Whether results arrive later. Throws std::system_error with errno (system category)
   /// "TransportMethod not initialized" while there is no descriptor.
   bool isAsync() const;

   /// Installs the receiver of results; null removes it.
   void asyncHelperIs(const Ptr<AsyncHelperBase>& helper);

   /// Prints every register on standard error (see BaseTransportMethodImpl::dumpAll()).
   void dumpAll();

   /// Records the exception that is being handled: traces it, sets the error flag, and raises
   /// Platform::ErrnoException from the current errno if raiseExceptionOnError() is set. For
   /// tryPerformIO() and for transports that fail outside of an access.
   void handleExceptionGeneric();

   /// Destroys the transport; harmless when there is none. Descriptor and notifier are kept.
   void handleDeletion();

protected:
   /// Stores what `factory` makes as the transport.
   void _implFromFactory(const TransportImplFactory& factory, const String& csvPath,
                         const Ptr<HardwareRegisterFile>& regFile);

private:
   BaseTransportMethodImpl& _implOrThrow() const;
   void _checkHandle(const RegisterHandle& handle) const;
   void _look(const RegisterHandle& handle, const Ptr<HardwareRegisterFile>& list) const;
   template <typename Read>
   std::uint32_t _read(const String& regName, const Read& read);
   template <typename Write>
   void _write(const String& regName, const Write& write);
   const TransportImplFactory& _factory() const;
   void _checkArrayAccess() const;
   bool _errorFlag() const noexcept;
   Ptr<AsyncHelperBase> _helperForResult() const;
   RegAccessResult _result() const noexcept;

   const String _name;
   bool _raiseExceptionOnError = false;
   Ptr<TransportMethodError> _errorNotifier;
   String _csvPath;
   Ptr<HardwareRegisterFile> _regFilePtr;
   Ptr<BaseTransportDescriptor> _descriptorPtr;

   // A plain owning pointer: fullInit() overwrites it without destroying what it held, and
   // implPtrIs() takes over what the caller made.
   BaseTransportMethodImpl* _impl = nullptr;

   // Another one in the whole process whenever `_impl` is set. Handles go by it, not by addresses,
   // which are used again.
   std::uint64_t _binding = 0;
};

/// A new TransportMethod, not initialised.
TARN_API Ptr<TransportMethod> transportMethodFactory(const String& name);

/// Runs one access of `tm`. A Hardware::SigbusException or std::runtime_error that leaves `action`
/// is traced at level 0 and handed to handleExceptionGeneric(); any other exception passes on.
/// errno is kept from the failure to the exception that is raised for it. Throws
/// std::bad_function_call when `action` is empty.
TARN_API void tryPerformIO(TransportMethod* tm, const String& regName,
                           const std::function<void()>& action);

} // namespace TarnRegFile
