#include "TarnRegFile/OrderedRegisterTable.h"

#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile::Sable {

OrderedRegisterTable::OrderedRegisterTable(const String& name, const char* className)
   : TableEntity(name, className,
                 {opAttr, opControlAttr, "opIs", "opCommit", "opDel", "opDelAll", "opNotify"}) {}

OrderedRegisterTable::~OrderedRegisterTable() = default;

const Platform::TypeData& OrderedRegisterTable::staticType() {
   using Self = OrderedRegisterTable;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::Sable::OrderedRegisterTable", Node::staticType())
         .attribute<&Self::name>("name")
         .collection<&Self::_opKeys, &Self::_opElement>("op")
         .attribute<&Self::opControl, &Self::opControlIs>("opControl")
         .operation<&Self::opIs>("opIs", {"record"})
         .operation<&Self::opDel>("opDel", {"key"})
         .operation<&Self::opDelAll>("opDelAll")
         .operation<&Self::opNotify>("opNotify", {"key"})
         .operation<&Self::opNotifyQuiesced>("opNotifyQuiesced", {"quiesced"})
         .operation<&Self::opNotifyMountStatus>("opNotifyMountStatus")
         .build();
   return type;
}

} // namespace TarnRegFile::Sable
