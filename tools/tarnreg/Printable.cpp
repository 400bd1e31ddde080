#include "tools/tarnreg/Printable.h"

#include "platform/entity/TextRange.h"
#include "platform/trace/Line.h"

namespace TarnReg {

std::string printable(std::string_view text) {
   // A trace line doubles backslashes; here they are mostly from texts that are quoted already.
   std::string out;
   while (true) {
      const std::size_t backslash = text.find('\\');
      out += Platform::Trace::escaped(text.substr(0, backslash));
      if (backslash == std::string_view::npos) {
         return out;
      }
      out += '\\';
      text.remove_prefix(backslash + 1);
   }
}

std::string shownName(std::string_view name) {
   return !name.empty() && printable(name) == name ? std::string(name)
                                                   : printable(Platform::quote(name));
}

} // namespace TarnReg
