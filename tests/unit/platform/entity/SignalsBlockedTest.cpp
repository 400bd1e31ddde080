#include "platform/entity/SignalsBlocked.h"

#include <csignal>
#include <thread>

#include <gtest/gtest.h>

namespace Platform {
namespace {

bool takes(int signal) {
   ::sigset_t blocked;
   ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
   return ::sigismember(&blocked, signal) == 0;
}

TEST(SignalsBlocked, AThreadThatIsStartedMeanwhileTakesNoSignals) {
   bool terminate = true;
   bool hangUp = true;
   std::thread thread;
   {
      const SignalsBlocked blocked;
      thread = std::thread([&] {
         terminate = takes(SIGTERM);
         hangUp = takes(SIGHUP);
      });
   }
   thread.join();
   EXPECT_FALSE(terminate);
   EXPECT_FALSE(hangUp);
}

TEST(SignalsBlocked, AfterwardsTheThreadTakesThoseThatItTookBefore) {
   ::sigset_t one;
   ::sigset_t before;
   ::sigemptyset(&one);
   ::sigaddset(&one, SIGUSR1);
   ::pthread_sigmask(SIG_BLOCK, &one, &before);
   {
      const SignalsBlocked blocked;
      EXPECT_FALSE(takes(SIGTERM));
   }
   EXPECT_TRUE(takes(SIGTERM));
   EXPECT_FALSE(takes(SIGUSR1));
   ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace
} // namespace Platform
