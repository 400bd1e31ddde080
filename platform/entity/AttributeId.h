#pragma once

#include <cstddef>
#include <string_view>

namespace Platform {

/// Names an attribute in a published change. Made from a literal, so that it can be a constant of
/// the class that declares the attribute; equal when the names are equal.
class AttributeId {
public:
   template <std::size_t N>
   constexpr explicit AttributeId(const char (&name)[N]) noexcept : _name(name, N - 1) {}

   constexpr std::string_view name() const noexcept { return _name; }

   friend constexpr bool operator==(AttributeId a, AttributeId b) noexcept {
      return (a._name.data() == b._name.data() && a._name.size() == b._name.size()) ||
             a._name == b._name;
   }

private:
   std::string_view _name;
};

} // namespace Platform
