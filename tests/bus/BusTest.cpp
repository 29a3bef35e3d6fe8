#include "BusTest.h"

#include <unistd.h>

#include <cstdlib>

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
