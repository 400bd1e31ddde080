#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/tables/TableShape.h"

namespace TarnReg {

/// What a shared table holds, for people and for JSON: the register tables' keys and records as
/// what they are, anything else as its bytes.
class TableText {
public:
   explicit TableText(const Platform::Tables::TableShape& shape);

   std::string key(std::span<const std::uint8_t> bytes) const;
   std::string record(std::span<const std::uint8_t> bytes) const;
   nlohmann::ordered_json keyJson(std::span<const std::uint8_t> bytes) const;
   nlohmann::ordered_json recordJson(std::span<const std::uint8_t> bytes) const;

private:
   enum class Kind { registers, operations, other };
   Kind _kind;
};

} // namespace TarnReg
