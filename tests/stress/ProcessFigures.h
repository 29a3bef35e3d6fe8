#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

/// What a process holds, as the kernel counts it.
struct SProcessFigures
{
    long residentKb = 0;
    long descriptors = 0;
    long threads = 0;
};

/// All zero if there is no such process.
SProcessFigures figuresOf(pid_t pid);

/// Figures of one process taken in the course of a campaign, against how far that had come.
class CTrend
{
public:
    void Take(double progress, SProcessFigures const& figures);

    SProcessFigures Last() const;

    /// What the second half of the campaign added for each step of progress, by least squares; 0 for less than three
    /// samples. The first half is left out: caches fill, and the memory allocator gets what it needs.
    double SlopeOfResidentKb() const;
    double SlopeOfDescriptors() const;
    double SlopeOfThreads() const;

private:
    struct SSample
    {
        double progress;
        SProcessFigures figures;
    };

    double Slope(long SProcessFigures::*figure) const;

    std::vector<SSample> m_samples;
};
