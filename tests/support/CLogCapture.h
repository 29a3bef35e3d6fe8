#pragma once

#include <nelo_rpc/Log.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

/// The library's log as the tests see it, for the life of the object: every line is kept, and error and
/// fatal lines go to stderr as well, where a death test looks for them.
///
/// One at a time: there is one sink for the process, and the destructor puts the stderr sink back.
/// All functions may be called from any thread while others log.
class CLogCapture
{
public:
    struct SLine
    {
        nelo_rpc::log::ELevel level;
        std::string line; ///< whole, with the "[thread id] " in front where it has one
    };

    CLogCapture();
    ~CLogCapture();

    CLogCapture(CLogCapture const&) = delete;
    CLogCapture& operator=(CLogCapture const&) = delete;

    std::vector<SLine> Lines() const;

    /// The lines of one level, without the "[thread id] " in front.
    std::vector<std::string> Texts(nelo_rpc::log::ELevel level) const;

    /// All lines, without the "[thread id] " in front.
    std::vector<std::string> Texts() const;

    /// How many lines contain the part.
    int Count(std::string const& part) const;
    bool Contains(std::string const& part) const;

    /// Waits until that many lines contain the part; lines logged before the call count.
    /// @return false when the limit passed first.
    bool WaitFor(std::string const& part, int count = 1, std::chrono::milliseconds limit = std::chrono::seconds(10));

    /// Forgets what was logged so far.
    void Clear();

private:
    struct SState;
    std::shared_ptr<SState> m_state; // shared with the sink
};

/// Sends error and fatal lines to stderr and drops the others. TestMain installs it before the first test.
void installStderrSink();
