#pragma once

#include <cstddef>
#include <cstring>

namespace TestSupport {

/// The index of a virtual function in its class's table, read out of a pointer to the member as
/// the Itanium C++ ABI lays it out: one more than the offset into the table. -1 when the function
/// is not virtual.
template <typename Member>
std::ptrdiff_t virtualSlot(Member member) {
   struct {
      std::ptrdiff_t offset;
      std::ptrdiff_t adjustment;
   } layout;
   static_assert(sizeof(member) == sizeof(layout));
   std::memcpy(&layout, &member, sizeof(layout));
   return layout.offset % 2 == 1 ? (layout.offset - 1) / static_cast<std::ptrdiff_t>(sizeof(void*))
                                 : -1;
}

} // namespace TestSupport
