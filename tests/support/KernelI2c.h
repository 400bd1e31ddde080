#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/TempDir.h"

union i2c_smbus_data;

namespace TestSupport {

/// Stands in for the kernel's I2C driver: an ordinary file whose ioctls this answers. Programs that
/// use it link KernelI2c.cpp, whose ioctl takes the place of the C library's; ioctls of all other
/// files go on to the kernel. One at a time.
///
/// It keeps what was asked to the byte, and knows nothing of registers.
class KernelI2c {
public:
   /// One message of an I2C_RDWR.
   struct Message {
      unsigned address = 0;
      unsigned flags = 0;
      std::size_t length = 0;
      std::vector<std::uint8_t> bytes{}; ///< what was given, for writes

      bool operator==(const Message&) const = default;
   };

   /// One ioctl of the file.
   struct Call {
      unsigned long request = 0;
      long address = 0; ///< I2C_SLAVE
      int readWrite = 0;
      int command = 0;
      unsigned int size = 0;
      std::vector<std::uint8_t> block; ///< length byte and data that were given, for blocks
      std::uint16_t word = 0;          ///< what was given, for words
      unsigned long value = 0;         ///< I2C_TIMEOUT, I2C_RETRIES
      std::vector<Message> messages{}; ///< I2C_RDWR
      bool locked = false;             ///< whether somebody held the file's exclusive lock

      bool operator==(const Call&) const = default;
   };

   KernelI2c();
   ~KernelI2c();
   KernelI2c(const KernelI2c&) = delete;
   KernelI2c& operator=(const KernelI2c&) = delete;

   const std::string& path() const { return _path; }

   /// The errno that the next ioctls fail with, one each; 0 lets one pass. Behind them all pass.
   std::deque<int> errors;

   /// Whether errors are for I2C_SMBUS alone.
   bool onlyTransfersFail = true;

   /// What I2C_FUNCS says. While there is none, the file is no bus to those who ask: besides
   /// I2C_SLAVE and I2C_SMBUS, every ioctl fails with ENOTTY.
   std::optional<unsigned long> functions;

   /// What I2C_RDWR returns in place of the number of its messages. What it reads is `bytes`, over
   /// and over.
   std::optional<int> transferred;

   /// Bytes that the next block read gives, or the word of a word read.
   std::vector<std::uint8_t> bytes{0, 0, 0, 0};
   std::uint16_t word = 0;

   /// Called in each ioctl, before it is answered.
   std::function<void(const Call&)> onCall;

   std::vector<Call> calls;

   /// Everything in order, in short: "lock exclusive", "write", "read", "unlock", "address".
   std::vector<std::string> order;

   /// Called when somebody is about to wait for the exclusive lock.
   std::function<void()> onLock;

   /// Puts another file in the place of this one, takes it away, and puts one there again.
   void replace();
   void remove();

   /// The descriptors of this process that are open on the file.
   std::vector<int> openFds() const;

   /// Whether somebody holds an exclusive lock on the file.
   bool isLocked();

   // For the ioctl that replaces the C library's.
   static KernelI2c* current;
   bool isOurs(int fd) const;
   int answer(unsigned long request, void* argument);
   void locked(int operation);

private:
   int _transfer(void* argument, Call call);
   int _messages(void* argument, Call call);
   int _note(const Call& call);

   std::mutex _mutex; // threads that the lock makes wait for each other follow each other here too
   TempDir _dir;
   std::string _path;
};

} // namespace TestSupport
