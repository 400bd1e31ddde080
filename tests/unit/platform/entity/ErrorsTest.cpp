#include "platform/entity/Errors.h"

#include <cerrno>

#include <gtest/gtest.h>

using Platform::ErrnoException;
using Platform::RangeError;

TEST(ErrnoException, IsASystemErrorThatKeepsTheErrnoOfItsMoment) {
   errno = ENXIO;
   try {
      throw ErrnoException();
   } catch (const std::system_error& error) {
      errno = 0;
      EXPECT_EQ(error.code(), std::error_code(ENXIO, std::system_category()));
      EXPECT_STREQ(error.what(), "No such device or address");
   }
}

TEST(ErrnoException, SaysWhatWasBeingDoneBeforeTheErrnoText) {
   const ErrnoException error(EACCES, "open /dev/spidev0.0");
   EXPECT_EQ(error.code().value(), EACCES);
   EXPECT_STREQ(error.what(), "open /dev/spidev0.0: Permission denied");
   EXPECT_EQ(ErrnoException(EPIPE).code().value(), EPIPE);
}

TEST(ErrnoException, ThrowErrnoTakesTheCurrentErrno) {
   errno = EBUSY;
   try {
      Platform::throwErrno("ioctl");
      FAIL() << "nothing thrown";
   } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::error_code(EBUSY, std::system_category()));
      EXPECT_STREQ(error.what(), "ioctl: Device or resource busy");
   }
}

TEST(ThrowError, IsInTheGenericCategory) {
   try {
      Platform::throwError(ENOENT, "register abc");
      FAIL() << "nothing thrown";
   } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().category(), std::generic_category());
      EXPECT_EQ(error.code().value(), ENOENT);
      EXPECT_STREQ(error.what(), "register abc: No such file or directory");
   }
}

TEST(RangeError, IsAStdRangeErrorWithTheTextItWasGiven) {
   try {
      throw RangeError("300 is too much");
   } catch (const std::range_error& error) {
      EXPECT_STREQ(error.what(), "300 is too much");
   }
}
