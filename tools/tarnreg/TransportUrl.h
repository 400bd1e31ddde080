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

   /// The descriptor that selects the transport. For "mock:PATH" it also points REG_VALUES_FILE,
   /// which the mock reads, at PATH; to be called once, while the process has one thread.
   Platform::Ptr<TarnRegFile::BaseTransportDescriptor> descriptor() const;

private:
   std::string _scheme;
   std::string _rest;
};

} // namespace TarnReg
