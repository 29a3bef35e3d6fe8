#include "HungWays.h"

#include "CHang.h"
#include "ProgramSupport.h"

#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <mutex>

namespace
{

void sleepForEver()
{
    for (;;)
    {
        CHang::Sleep();
    }
}

void waitForNothing()
{
    static std::mutex& mutex = *new std::mutex;
    static std::condition_variable& never = *new std::condition_variable;
    std::unique_lock<std::mutex> lock(mutex);
    for (;;)
    {
        never.wait(lock);
    }
}

void lockWhatIsNeverUnlocked()
{
    static std::mutex& mutex = []() -> std::mutex& {
        auto& locked = *new std::mutex;
        locked.lock();
        return locked;
    }();
    std::lock_guard<std::mutex> const lock(mutex);
}

void readFromASilentPipe()
{
    int ends[2];
    char byte = 0;
    if (::pipe2(ends, 0) == 0 && ::read(ends[0], &byte, 1) == 1)
    {
        return;
    }
}

/// The loops' results, so that the compiler keeps them.
std::size_t volatile g_sum = 0;

void allocateForEver()
{
    for (std::size_t size = 1;; size = size % 5000 + 1)
    {
        char* const block = new char[size];
        std::memset(block, 1, size);
        g_sum = g_sum + static_cast<std::size_t>(block[size - 1]);
        delete[] block;
    }
}

void buildStringsForEver()
{
    for (;;)
    {
        std::string text;
        for (int i = 0; i < 1000; ++i)
        {
            text += std::to_string(i) + ", ";
        }
        g_sum = g_sum + text.size();
    }
}

} // namespace

void hangOutsideTheLibrary(std::string const& way)
{
    // Each in a function of its own, so that it is hung with nothing on its stack but what the way itself has there.
    void (*hang)() = nullptr;
    hang = way == "sleep" ? &sleepForEver : hang;
    hang = way == "condition wait" ? &waitForNothing : hang;
    hang = way == "mutex" ? &lockWhatIsNeverUnlocked : hang;
    hang = way == "blocking read" ? &readFromASilentPipe : hang;
    hang = way == "busy loop" ? &spinForEver : hang;
    hang = way == "allocation loop" ? &allocateForEver : hang;
    hang = way == "string loop" ? &buildStringsForEver : hang;
    if (hang != nullptr)
    {
        void (*volatile const opaque)() = hang; // a call of which nobody knows that it throws nothing
        opaque();
    }
}
