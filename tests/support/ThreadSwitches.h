#pragma once

#include <filesystem>
#include <fstream>
#include <set>
#include <string>

/// How often a thread of this process has gone to sleep of its own accord; -1 if there is no such thread.
inline long countSleepsOf(int threadId)
{
    std::ifstream status("/proc/self/task/" + std::to_string(threadId) + "/status");
    for (std::string word; status >> word;)
    {
        long sleeps = 0;
        if (word == "voluntary_ctxt_switches:" && status >> sleeps)
        {
            return sleeps;
        }
    }
    return -1;
}

/// All threads of this process, as the kernel names them.
inline std::set<int> threadsOfProcess()
{
    std::set<int> threads;
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task"))
    {
        threads.insert(std::stoi(task.path().filename().string()));
    }
    return threads;
}
