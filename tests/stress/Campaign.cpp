#include "Campaign.h"

#include <nelo_rpc/Log.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

using std::chrono::steady_clock;

namespace
{

/// Whole numbers without a point, others with two digits after it.
std::string textOf(double value)
{
    char text[64];
    bool const isWhole = value == static_cast<double>(static_cast<long long>(value));
    std::snprintf(text, sizeof(text), isWhole ? "%.0f" : "%.2f", value);
    return text;
}

double secondsSince(steady_clock::time_point start)
{
    return std::chrono::duration<double>(steady_clock::now() - start).count();
}

} // namespace

bool isLongForm()
{
    char const* const form = std::getenv("NELO_RPC_CAMPAIGN");
    return form != nullptr && std::string(form) == "long";
}

int pick(int shortForm, int longForm)
{
    char const* const scale = std::getenv("NELO_RPC_CAMPAIGN_SCALE");
    return !isLongForm() ? shortForm : scale != nullptr ? static_cast<int>(longForm * std::atof(scale)) : longForm;
}

CCampaign::CCampaign(std::string name, std::chrono::seconds limit) : m_name(std::move(name)), m_limit(limit)
{
    // What campaigns provoke leaves error lines by the thousand.
    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Fatal);
}

CCampaign::~CCampaign()
{
    Set("seconds", secondsSince(m_start));
    std::printf("%s: %s\n", m_name.c_str(), Text().c_str());
    if (char const* const results = std::getenv("NELO_RPC_CAMPAIGN_RESULTS"))
    {
        std::ofstream(results, std::ios::app) << Json() << '\n';
    }
}

bool CCampaign::IsOver() const
{
    return steady_clock::now() - m_start >= m_limit;
}

void CCampaign::Progress(long done, long total)
{
    auto const now = steady_clock::now();
    if (isLongForm() && now - m_lastProgress >= std::chrono::seconds(5))
    {
        m_lastProgress = now;
        std::printf("%s: %ld of %ld after %.0f s\n", m_name.c_str(), done, total, secondsSince(m_start));
        std::fflush(stdout);
    }
}

void CCampaign::Set(std::string const& figure, double value)
{
    std::size_t const place = m_order.emplace(figure, m_order.size()).first->second;
    m_figures[place] = {figure, value};
}

void CCampaign::Add(std::string const& figure, double value)
{
    Set(figure, Get(figure) + value);
}

double CCampaign::Get(std::string const& figure) const
{
    auto const place = m_order.find(figure);
    return place != m_order.end() ? m_figures.at(place->second).second : 0;
}

std::string CCampaign::Json() const
{
    // Names are the campaigns' own and need no escapes.
    std::string json = "{\"campaign\": \"" + m_name + "\"";
    for (auto const& [place, figure] : m_figures)
    {
        json += ", \"" + figure.first + "\": " + textOf(figure.second);
    }
    return json + "}";
}

std::string CCampaign::Text() const
{
    std::string text;
    for (auto const& [place, figure] : m_figures)
    {
        text += (text.empty() ? "" : ", ") + figure.first + " " + textOf(figure.second);
    }
    return text;
}
