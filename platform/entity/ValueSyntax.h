#pragma once

#include <string_view>

#include "platform/entity/Value.h"

namespace Platform {

/// Writes a record as Value('Type', key=value, ...), field by field.
class TARN_PLATFORM_API RecordWriter {
public:
   explicit RecordWriter(std::string_view type) : _text("Value(" + quote(type)) {}

   template <typename T>
   RecordWriter& field(std::string_view key, const T& value) {
      _text += ", ";
      _text += key;
      _text += '=';
      _text += ValueTraits<T>::write(value);
      return *this;
   }

   String done() const { return _text + ")"; }

private:
   String _text;
};

/// Reads what RecordWriter wrote, field by field in the same order. Throws RangeError.
class TARN_PLATFORM_API RecordReader {
public:
   RecordReader(TextRange& range, std::string_view type) : _range(range) {
      _range.require("Value(" + quote(type));
   }

   template <typename T>
   RecordReader& field(std::string_view key, T& value) {
      _range.require(", ");
      _range.require(key);
      _range.require("=");
      value = ValueTraits<T>::read(_range);
      return *this;
   }

   void done() { _range.require(")"); }

private:
   TextRange& _range;
};

} // namespace Platform
