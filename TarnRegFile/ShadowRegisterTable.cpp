#include "TarnRegFile/ShadowRegisterTable.h"

#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile::Sable {

ShadowRegisterTable::ShadowRegisterTable(const String& name, const char* className)
   : TableEntity(name, className,
                 {regMapAttr, regMapControlAttr, "regMapIs", "regMapCommit", "regMapDel",
                  "regMapDelAll", "regMapNotify"}) {}

ShadowRegisterTable::~ShadowRegisterTable() = default;

const Platform::TypeData& ShadowRegisterTable::staticType() {
   using Self = ShadowRegisterTable;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::Sable::ShadowRegisterTable", Node::staticType())
         .attribute<&Self::name>("name")
         .collection<&Self::_regMapKeys, &Self::_regMapElement>("regMap")
         .attribute<&Self::regMapControl, &Self::regMapControlIs>("regMapControl")
         .operation<&Self::regMapIs>("regMapIs", {"record"})
         .operation<&Self::regMapDel>("regMapDel", {"key"})
         .operation<&Self::regMapDelAll>("regMapDelAll")
         .operation<&Self::regMapNotify>("regMapNotify", {"key"})
         .operation<&Self::regMapNotifyQuiesced>("regMapNotifyQuiesced", {"quiesced"})
         .operation<&Self::regMapNotifyMountStatus>("regMapNotifyMountStatus")
         .build();
   return type;
}

} // namespace TarnRegFile::Sable
