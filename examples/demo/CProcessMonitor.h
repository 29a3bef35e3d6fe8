#pragma once

#include "ProcessState.h"

#include <nelo_rpc/nelo_rpc.h>

#include <cstdint>
#include <string>
#include <vector>

/// Answers questions about the processes of this machine from /proc.
class CProcessMonitor
{
public:
    int CountProcesses();
    double LoadAverage();           ///< of the last minute
    unsigned int MemoryKb(int pid); ///< resident memory; 0 for a process that is not there
    std::string NameOf(int pid);    ///< empty for a process that is not there
    EProcessState StateOf(int pid);
    std::vector<std::uint8_t> CommandLine(int pid);    ///< the arguments, each ended by a zero byte
    int CountQuestions() const { return m_questions; } ///< questions answered by this object since it was made
    void ForgetQuestions() { m_questions = 0; }

    /// Blocks until the process has ended, for as long as that takes: for ever, if it never ends.
    ///
    /// Such a function gets its thread killed, so it holds nothing that would stay behind: no memory, no lock.
    bool WaitForExit(int pid);

    /// The whole answer in one list: processes at 0, load at 1, the text of both at 2.
    nelo_rpc::types::CValueList Snapshot(nelo_rpc::types::CValueList const& arguments);

private:
    int m_questions = 0; ///< no lock: the calls of one client run one at a time
};
