// Compiled into every test program that is built with AddressSanitizer.
//
// A thread that ends itself, because a cancellation is pending, unwinds from within the C library, which is not
// instrumented: what the sanitizer has marked around the variables of the frames that go stays marked. Destructors that
// run on the way, or afterwards, use the same memory and would be reported. So the marks are taken away here, as they are
// before an exception is thrown. Not by the sanitizer's own function for that: it uses the stack in a checked way itself,
// which a cancellation at any instruction may have left marked already.

#include <sanitizer/asan_interface.h>

#include <dlfcn.h>
#include <pthread.h>

namespace
{
/// More than the frames of a worker take from here to its start, and than what runs on the way.
constexpr unsigned long ABOVE = 16 * 1024;
constexpr unsigned long BELOW = 32 * 1024;
} // namespace

namespace
{
__attribute__((no_sanitize("address", "undefined"), noinline)) void takeMarksAway()
{
    __asan_unpoison_memory_region(static_cast<char*>(__builtin_frame_address(0)) - BELOW, BELOW + ABOVE);
}
} // namespace

extern "C" __attribute__((no_sanitize("address", "undefined"))) void pthread_testcancel()
{
    using Function = void (*)();
    static auto const real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "pthread_testcancel"));
    takeMarksAway();
    real();
}

// The other function in which a pending cancellation acts: when it becomes possible at any instruction.
extern "C" __attribute__((no_sanitize("address", "undefined"))) int pthread_setcanceltype(int type, int* oldType)
{
    using Function = int (*)(int, int*);
    static auto const real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "pthread_setcanceltype"));
    if (type == PTHREAD_CANCEL_ASYNCHRONOUS)
    {
        takeMarksAway();
    }
    return real(type, oldType);
}
