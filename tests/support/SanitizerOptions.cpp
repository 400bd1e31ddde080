// For test programs in which SIGBUS is part of what is tested: a sanitizer must not have a handler
// of its own for it. Without a sanitizer nobody calls these.

#define TARN_TEST_EXPORT extern "C" __attribute__((visibility("default"), used))

TARN_TEST_EXPORT const char* __asan_default_options();
TARN_TEST_EXPORT const char* __tsan_default_options();
TARN_TEST_EXPORT const char* __ubsan_default_options();

const char* __asan_default_options() {
   return "handle_sigbus=0";
}

const char* __tsan_default_options() {
   return "handle_sigbus=0";
}

const char* __ubsan_default_options() {
   return "handle_sigbus=0";
}
