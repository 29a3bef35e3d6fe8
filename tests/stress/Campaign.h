#pragma once

#include <chrono>
#include <map>
#include <string>

/// How far a campaign goes: the short form shows in seconds that it works, the long one gives the figures.
/// The long form is chosen by NELO_RPC_CAMPAIGN=long in the environment, and is NELO_RPC_CAMPAIGN_SCALE times as long
/// where that is set.
bool isLongForm();
int pick(int shortForm, int longForm);

/// What one campaign did and saw.
///
/// While it runs, this process logs fatal lines only. At its end the figures go to standard output, and as a line of JSON to the file that NELO_RPC_CAMPAIGN_RESULTS names.
/// One thread at a time.
class CCampaign
{
public:
    /// @param name   as the table of figures shows it.
    /// @param limit  when it is to stop whether it has done all or not.
    CCampaign(std::string name, std::chrono::seconds limit);
    ~CCampaign();

    CCampaign(CCampaign const&) = delete;
    CCampaign& operator=(CCampaign const&) = delete;

    bool IsOver() const;

    /// Says now and then how far it is, in the long form.
    void Progress(long done, long total);

    /// Figures appear in the order in which they were first set.
    void Set(std::string const& figure, double value);
    void Add(std::string const& figure, double value);
    double Get(std::string const& figure) const;

private:
    std::string Json() const;
    std::string Text() const;

    std::string const m_name;
    std::chrono::steady_clock::time_point const m_start = std::chrono::steady_clock::now();
    std::chrono::seconds const m_limit;
    std::chrono::steady_clock::time_point m_lastProgress = m_start;
    std::map<std::string, std::size_t> m_order;
    std::map<std::size_t, std::pair<std::string, double>> m_figures;
};
