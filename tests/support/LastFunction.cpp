#include "LastFunction.h"

#include <cstdlib>

namespace
{

void (*g_lastFunction)() = nullptr;

void runLastFunction(int /*status*/, void* /*unused*/)
{
    if (g_lastFunction != nullptr)
    {
        g_lastFunction();
    }
}

void putFirstInLine(int /*argc*/, char** /*argv*/, char** /*environment*/)
{
    ::on_exit(&runLastFunction, nullptr);
}

// What is registered first runs last at exit, and only this is called before the libraries make their objects.
__attribute__((section(".preinit_array"), used)) void (*beforeAllObjects)(int, char**, char**) = &putFirstInLine;

} // namespace

void runAfterStaticDestructors(void (*function)())
{
    g_lastFunction = function;
}
