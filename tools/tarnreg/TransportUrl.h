#pragma once

#include <string>
#include <string_view>

#include "platform/entity/Ptr.h"
#include "TarnRegFile/TransportDescriptor.h"

namespace TarnReg {

/// Says on the command line how a device is reached, "scheme:rest". The schemes so far:
///    mock:        in memory, and in the file that REG_VALUES_FILE names, if any
///    mock:PATH    in memory and in the values file at PATH
class TransportUrl {
public:
   /// Throws Failure (usage) that names the text and the schemes there are.
   explicit TransportUrl(std::string_view text);

   const std::string& scheme() const noexcept { return _scheme; }
   const std::string& rest() const noexcept { return _rest; }

   /// The file that the mock keeps its values in, from here or from REG_VALUES_FILE; empty for
   /// none.
   std::string valuesFile() const;

   /// Throws Failure (deviceError) when the values file cannot be used: it or its directory is
   /// missing, unreadable, or, with `writing`, not writable. The mock itself would do without it
   /// and say nothing.
   void checkValuesFile(bool writing) const;

   /// The descriptor that selects the transport. For "mock:PATH" it also points REG_VALUES_FILE,
   /// which the mock reads, at PATH; to be called once, while the process has one thread.
   Platform::Ptr<TarnRegFile::BaseTransportDescriptor> descriptor() const;

private:
   std::string _scheme;
   std::string _rest;
};

} // namespace TarnReg
