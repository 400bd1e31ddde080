// Where the agent says how a core is.

#include "agent/StateTable.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "platform/tables/TableMount.h"
#include "tests/support/TempDir.h"

namespace Agent {
namespace {

using Platform::Tables::TableMount;
using Platform::Tables::TableRole;

class StateTableTest : public testing::Test {
protected:
   Platform::EventLoop loop;
   TestSupport::TempDir directory;
   Platform::Tables::TableService service{
      loop, Platform::Tables::TableDirectory(directory.path("tables"))};
};

TEST_F(StateTableTest, HasTheLastThatWasSaid) {
   StateTable table(service, "fpga/state", {.role = TableRole::writer});
   StateTable::CoreState state;
   state.generation = 3;
   table.stateIs(state);
   state.generation = 4;
   state.lastErrorIs("no");
   table.stateIs(state);
   EXPECT_EQ(table.problem(), "");
   const TableMount mount(service.directory(), "fpga/state", {.shape = StateTable::shape()});
   EXPECT_EQ(mount.count(), 1u) << "one record";
   std::vector<std::uint64_t> key(mount.keyWords());
   std::vector<std::uint64_t> record(mount.recordWords());
   std::uint32_t position = 0;
   const auto size = mount.next(position, key, record);
   ASSERT_TRUE(size);
   StateTable::CoreState read;
   read.deserialize(reinterpret_cast<const std::uint8_t*>(record.data()), *size);
   EXPECT_EQ(read, state);
}

TEST_F(StateTableTest, KnowsOfDamageAndIsNotWrittenThen) {
   StateTable table(service, "fpga/state", {.role = TableRole::writer});
   table.stateIs({});
   ASSERT_EQ(::truncate(directory.path("tables/fpga%2Fstate.tbl").c_str(), 4096), 0);
   EXPECT_THROW(table.stateIs({}), Platform::Tables::CorruptionException);
}

} // namespace
} // namespace Agent
