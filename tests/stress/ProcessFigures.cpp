#include "ProcessFigures.h"

#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>

namespace
{

struct SCloseFolder
{
    void operator()(DIR* folder) const { ::closedir(folder); }
};

long countEntries(std::string const& path)
{
    std::unique_ptr<DIR, SCloseFolder> const folder(::opendir(path.c_str()));
    long count = 0;
    while (folder != nullptr && ::readdir(folder.get()) != nullptr)
    {
        ++count;
    }
    return std::max(count - 2, 0L); // "." and ".."
}

} // namespace

SProcessFigures figuresOf(pid_t pid)
{
    std::string const folder = "/proc/" + std::to_string(pid);
    SProcessFigures figures;
    std::ifstream status(folder + "/status");
    for (std::string line; std::getline(status, line);)
    {
        std::istringstream words(line);
        std::string key;
        words >> key;
        if (key == "VmRSS:")
        {
            words >> figures.residentKb;
        }
        else if (key == "Threads:")
        {
            words >> figures.threads;
        }
    }
    figures.descriptors = countEntries(folder + "/fd");
    return figures;
}

void CTrend::Take(double progress, SProcessFigures const& figures)
{
    m_samples.push_back({progress, figures});
}

SProcessFigures CTrend::Last() const
{
    return m_samples.empty() ? SProcessFigures{} : m_samples.back().figures;
}

double CTrend::SlopeOfResidentKb() const
{
    return Slope(&SProcessFigures::residentKb);
}

double CTrend::SlopeOfDescriptors() const
{
    return Slope(&SProcessFigures::descriptors);
}

double CTrend::SlopeOfThreads() const
{
    return Slope(&SProcessFigures::threads);
}

double CTrend::Slope(long SProcessFigures::*figure) const
{
    std::vector<SSample> half;
    for (SSample const& sample : m_samples)
    {
        if (sample.progress * 2 >= m_samples.back().progress)
        {
            half.push_back(sample);
        }
    }
    double const count = static_cast<double>(half.size());
    double meanX = 0;
    double meanY = 0;
    for (SSample const& sample : half)
    {
        meanX += sample.progress / count;
        meanY += static_cast<double>(sample.figures.*figure) / count;
    }
    double covariance = 0;
    double variance = 0;
    for (SSample const& sample : half)
    {
        double const x = sample.progress - meanX;
        covariance += x * (static_cast<double>(sample.figures.*figure) - meanY);
        variance += x * x;
    }
    return half.size() < 3 || variance <= 0 ? 0 : covariance / variance;
}
