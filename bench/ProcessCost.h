#pragma once

namespace bench
{

/// What a process has used so far. Threads that have ended are left out.
struct SProcessCost
{
    double cpuMicroseconds = 0;
    long contextSwitches = 0;
    long residentKibibytes = 0;
};

SProcessCost costOf(int pid);

} // namespace bench
