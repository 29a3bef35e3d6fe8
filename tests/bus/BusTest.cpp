#include "BusTest.h"

#include <unistd.h>

#include <cstdlib>

namespace
{
bool g_leavesAMessageBehind = false;
} // namespace

/// Asked by the leak checker, if there is one, at the end of the process.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off()
{
    return g_leavesAMessageBehind ? 1 : 0;
}

void leaveAMessageBehind()
{
    g_leavesAMessageBehind = true;
}

int waitForReceiver(CLogCapture& log)
{
    std::string const text = "] start m_reciverThread !";
    if (!log.WaitFor(text))
    {
        return 0;
    }
    for (auto const& line : log.Lines())
    {
        if (line.line.find(text) != std::string::npos)
        {
            return std::atoi(line.line.c_str() + 1); // "[thread id] text"
        }
    }
    return 0;
}

bool isThreadAlive(int threadId)
{
    return ::access(("/proc/self/task/" + std::to_string(threadId)).c_str(), F_OK) == 0;
}
