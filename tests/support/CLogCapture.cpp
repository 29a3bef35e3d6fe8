#include "CLogCapture.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <mutex>

using nelo_rpc::log::ELevel;

namespace
{
void writeToStderr(ELevel level, std::string const& line)
{
    if (level >= ELevel::Error)
    {
        // One call for the whole line, so that lines of several threads do not mix.
        std::fprintf(stderr, "%s\n", line.c_str());
    }
}

std::string withoutThreadId(std::string const& line)
{
    if (line.empty() || line.front() != '[')
    {
        return line;
    }
    auto const end = line.find("] ");
    bool const isThreadId = end != std::string::npos && end > 1 &&
                            std::all_of(line.begin() + 1, line.begin() + static_cast<std::string::difference_type>(end),
                                        [](char c) { return c >= '0' && c <= '9'; });
    return isThreadId ? line.substr(end + 2) : line;
}
} // namespace

struct CLogCapture::SState
{
    int CountLocked(std::string const& part) const
    {
        return static_cast<int>(std::count_if(
            lines.begin(), lines.end(), [&](SLine const& line) { return line.line.find(part) != std::string::npos; }));
    }

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<SLine> lines;
};

CLogCapture::CLogCapture() : m_state(std::make_shared<SState>())
{
    nelo_rpc::log::SetSink([state = m_state](ELevel level, std::string const& line) {
        writeToStderr(level, line);
        std::lock_guard<std::mutex> lock(state->mutex);
        state->lines.push_back({level, line});
        state->changed.notify_all();
    });
}

CLogCapture::~CLogCapture()
{
    installStderrSink();
}

std::vector<CLogCapture::SLine> CLogCapture::Lines() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->lines;
}

std::vector<std::string> CLogCapture::Texts(ELevel level) const
{
    std::vector<std::string> texts;
    for (SLine const& line : Lines())
    {
        if (line.level == level)
        {
            texts.push_back(withoutThreadId(line.line));
        }
    }
    return texts;
}

std::vector<std::string> CLogCapture::Texts() const
{
    std::vector<std::string> texts;
    for (SLine const& line : Lines())
    {
        texts.push_back(withoutThreadId(line.line));
    }
    return texts;
}

int CLogCapture::Count(std::string const& part) const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->CountLocked(part);
}

bool CLogCapture::Contains(std::string const& part) const
{
    return Count(part) > 0;
}

bool CLogCapture::WaitFor(std::string const& part, int count, std::chrono::milliseconds limit)
{
    std::unique_lock<std::mutex> lock(m_state->mutex);
    return m_state->changed.wait_for(lock, limit, [&] { return m_state->CountLocked(part) >= count; });
}

void CLogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->lines.clear();
}

void installStderrSink()
{
    nelo_rpc::log::SetSink(&writeToStderr);
}
