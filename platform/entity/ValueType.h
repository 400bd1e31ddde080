#pragma once

#include <any>
#include <string_view>

#include "platform/entity/Export.h"
#include "platform/entity/Ptr.h"
#include "platform/entity/TextRange.h"
#include "platform/entity/Types.h"

namespace Platform {

class Node;
class Value;

/// One of the types that values have: its name and its string form. Instances live as long as the
/// process; valueType<T>() finds the one of T. Any thread.
class TARN_PLATFORM_API ValueType {
public:
   ValueType(const ValueType&) = delete;
   ValueType& operator=(const ValueType&) = delete;

   /// The name in descriptions and errors, such as "U32" or "Ptr<Hardware::HardwareRegisterFile>".
   virtual String name() const = 0;

   /// The string form of `data`, which must hold this type.
   virtual String toString(const std::any& data) const = 0;

   /// Reads the string form off the front of `range`. Throws RangeError.
   virtual std::any parse(TextRange& range) const = 0;

   /// Reads all of `text` the way a person types it: like parse(), but a text needs no quotes.
   /// Throws RangeError naming the text and the type.
   virtual std::any fromText(std::string_view text, const Directory* directory) const = 0;

   /// Takes over a value of this type, of another integer type when the number fits, or a
   /// reference to an object that is of the wanted class. Throws RangeError.
   virtual std::any convert(const Value& value) const = 0;

   /// What values of the type refer to.
   enum class Reference { none, constEntity, entity };
   virtual Reference reference() const { return Reference::none; }

   /// The entity that `data` refers to; null for a null reference and for types that are none.
   /// Whoever asks respects that reference() may be to a const entity.
   virtual Ptr<Node> node(const std::any& data) const;

protected:
   ValueType() = default;
   virtual ~ValueType() = default;
};

/// The type of T's values; T must have ValueTraits.
template <typename T>
TARN_PLATFORM_API const ValueType& valueType();

} // namespace Platform
