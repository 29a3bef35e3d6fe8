#pragma once

#include "CLogCapture.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

/// The kernel's id of the calling thread, as log lines show it.
inline int threadId()
{
    return static_cast<int>(::syscall(SYS_gettid));
}

/// The lines that one thread wrote, without its id in front. Lines about inconsistencies, which name no thread, are
/// not among them.
inline std::vector<std::string> linesOf(CLogCapture const& log, int thread)
{
    std::string const prefix = "[" + std::to_string(thread) + "] ";
    std::vector<std::string> lines;
    for (auto const& line : log.Lines())
    {
        if (line.line.rfind(prefix, 0) == 0)
        {
            lines.push_back(line.line.substr(prefix.size()));
        }
    }
    return lines;
}

/// The same for the calling thread. Where a host lives this keeps its watchdog's lines out.
inline std::vector<std::string> ownLines(CLogCapture const& log)
{
    return linesOf(log, threadId());
}

/// Whether all lines have one level.
inline bool allAreOf(CLogCapture const& log, nelo_rpc::log::ELevel level)
{
    for (auto const& line : log.Lines())
    {
        if (line.level != level)
        {
            return false;
        }
    }
    return true;
}

/// A pointer as a stream writes it.
inline std::string textOf(void const* pointer)
{
    std::ostringstream text;
    text << pointer;
    return text.str();
}
