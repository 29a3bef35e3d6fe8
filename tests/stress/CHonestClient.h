#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

/// What an honest client has seen.
struct SHonestReport
{
    long calls = 0;
    long lost = 0;       ///< calls without an answer, and steps or callbacks that did not get through
    long wrong = 0;      ///< answers and callbacks that are not as they should be
    double medianUs = 0; ///< how long calls took
    double p99Us = 0;
    double maxUs = 0;

    /// Counts add up; of latencies the worst remains.
    SHonestReport& operator+=(SHonestReport const& other);
};

/// A client of this process that steps without an end on a thread of its own, numbers its calls, and checks each answer
/// and each callback: every one is to come, once, in order, and right.
class CHonestClient
{
public:
    explicit CHonestClient(std::string const& server, std::chrono::microseconds pause = std::chrono::microseconds(0));
    ~CHonestClient();

    CHonestClient(CHonestClient const&) = delete;
    CHonestClient& operator=(CHonestClient const&) = delete;

    /// Whether it gets as many more calls done within the limit.
    bool WaitForCalls(long count, std::chrono::milliseconds limit = std::chrono::seconds(30)) const;

    /// Ends it, compares the server's count of steps with its own, and waits for callbacks that are on their way.
    SHonestReport Stop();

private:
    void Run(std::string const& server, std::chrono::microseconds pause);
    void CompareWithServer(int stepsOfServer, int stepsMade, std::atomic<int> const& heard);

    std::atomic<bool> m_stop{false};
    std::atomic<long> m_calls{0};
    std::atomic<long> m_wrong{0};
    SHonestReport m_report;
    std::vector<float> m_latenciesUs;
    std::thread m_thread;
};
