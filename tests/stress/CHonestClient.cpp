#include "CHonestClient.h"

#include "CTestClient.h"
#include "Eventually.h"
#include "StressTypes.h"

#include <algorithm>
#include <cstdlib>

using std::chrono::microseconds;
using std::chrono::steady_clock;

namespace
{

double percentile(std::vector<float> const& sorted, double share)
{
    if (sorted.empty())
    {
        return 0;
    }
    auto const place = static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1));
    return static_cast<double>(sorted[place]);
}

} // namespace

SHonestReport& SHonestReport::operator+=(SHonestReport const& other)
{
    calls += other.calls;
    lost += other.lost;
    wrong += other.wrong;
    medianUs = std::max(medianUs, other.medianUs);
    p99Us = std::max(p99Us, other.p99Us);
    maxUs = std::max(maxUs, other.maxUs);
    return *this;
}

CHonestClient::CHonestClient(std::string const& server, microseconds pause)
    : m_thread([this, server, pause] { Run(server, pause); })
{
}

CHonestClient::~CHonestClient()
{
    Stop();
}

bool CHonestClient::WaitForCalls(long count, std::chrono::milliseconds limit) const
{
    long const wanted = m_calls + count;
    return eventually([&] { return m_calls >= wanted; }, limit);
}

SHonestReport CHonestClient::Stop()
{
    m_stop = true;
    if (m_thread.joinable())
    {
        m_thread.join();
        std::sort(m_latenciesUs.begin(), m_latenciesUs.end());
        m_report.calls = m_calls;
        m_report.wrong += m_wrong;
        m_report.medianUs = percentile(m_latenciesUs, 0.5);
        m_report.p99Us = percentile(m_latenciesUs, 0.99);
        m_report.maxUs = percentile(m_latenciesUs, 1);
    }
    return m_report;
}

void CHonestClient::Run(std::string const& server, microseconds pause)
{
    CTestClient client(server, nelo_rpc::SPortOptions::Recommended());
    CStepperProxy stepper(client.Get());
    std::atomic<int> heard{0};
    stepper.OnStep.Subscribe([&](int step) { m_wrong += step == ++heard ? 0 : 1; });
    stepper.OnTick.Subscribe([](int) {});
    stepper.OnRecreate.Subscribe([&] { ++m_wrong; }); // its actor, and what that knew, was lost

    int number = 0;
    while (!m_stop)
    {
        std::string const text(static_cast<std::size_t>(++number % 200), 'h');
        auto const start = steady_clock::now();
        auto const answer = stepper.Step.TryCall(number, text);
        m_latenciesUs.push_back(std::chrono::duration<float, std::micro>(steady_clock::now() - start).count());
        m_report.lost += answer ? 0 : 1;
        m_wrong += answer && *answer != answerToStep(number, text) ? 1 : 0;
        ++m_calls;
        if (pause.count() > 0)
        {
            std::this_thread::sleep_for(pause);
        }
    }
    CompareWithServer(stepper.Steps.TryCall().value_or(-1), number, heard);
    stepper.UnsetCallbacks();
}

void CHonestClient::CompareWithServer(int stepsOfServer, int stepsMade, std::atomic<int> const& heard)
{
    m_report.lost += std::abs(stepsMade - stepsOfServer);
    eventually([&] { return heard >= stepsMade; });
    m_report.lost += std::abs(stepsMade - heard);
}
