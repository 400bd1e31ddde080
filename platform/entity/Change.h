#pragma once

#include "platform/entity/AttributeId.h"

namespace Platform {

class Node;
class Value;

/// One published change, as a notifiee receives it. Valid for the length of the call.
struct Change {
   const Node& source;    ///< whose attribute changed
   AttributeId attribute; ///< which one
   const Value& key;      ///< the key in a collection; the empty value for a plain attribute
};

} // namespace Platform
