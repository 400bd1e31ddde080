#include "platform/hardware/SigbusException.h"

#include <gtest/gtest.h>

#include <system_error>

namespace {

using Hardware::SigbusException;

// Catch clauses of guarded accesses name it first and std::runtime_error next.
TEST(SigbusException, IsARuntimeErrorAndNoSystemError) {
   static_assert(std::is_base_of_v<std::runtime_error, SigbusException>);
   static_assert(!std::is_base_of_v<std::system_error, SigbusException>);
   EXPECT_THROW(throw SigbusException(), std::runtime_error);
}

TEST(SigbusException, SaysWhatHappened) {
   EXPECT_STREQ(SigbusException().what(), "Caught SIGBUS");
}

// The library throws it and its callers catch it: the type must be one and the same in both.
TEST(SigbusException, IsCaughtByItsType) {
   try {
      throw SigbusException();
   } catch (const SigbusException&) {
      SUCCEED();
   } catch (...) {
      FAIL();
   }
}

} // namespace
