#pragma once

#include <nelo_rpc/Export.h>
#include <nelo_rpc/Log.h>

#include <chrono>
#include <sstream>
#include <string>

/// The library's own way to the system log: one line per event, built only if somebody wants it.
///
///     logDebug() << "CLoopThread::Post to thread " << id;
///     logInconsistency(Error, "CreateActorWithId", "actor id=%d", id);
namespace nelo_rpc::log
{

/// Whether lines of this level are wanted; one relaxed load.
bool IsLogged(ELevel level);

/// Writes a line made from a printf-style format, with a priority and a tag. Exported for the tests alone.
[[gnu::format(printf, 3, 4)]] NELO_RPC_API void SystemLogPrint(ELevel level, char const* tag, char const* format, ...);

/// The same through a log buffer. The system log service has one, so the id changes nothing.
[[gnu::format(printf, 4, 5)]] void SystemLogBufferPrint(int bufferId, ELevel level, char const* tag, char const* format,
                                                        ...);

/// How long a line waits for room while the daemon reads. Also a daemon that works has a full queue now and then: the
/// kernel's default is room for ten lines.
constexpr std::chrono::milliseconds PATIENCE{500};

/// Where the log daemon's socket is. "/dev/log", unless a test stands in for the daemon. Exported for the tests alone.
NELO_RPC_API void SetSystemLogPath(std::string path, std::chrono::milliseconds patience = PATIENCE);

constexpr char const* TAG = "NELO_RPC";
constexpr int MAIN_BUFFER = 0;

/// The part of a source file's path behind the last slash.
char const* BaseName(char const* path);

/// Collects one line, with the calling thread's id in front, and writes it at its end.
class CLogLine
{
public:
    explicit CLogLine(ELevel level);
    CLogLine(CLogLine const&) = delete;
    CLogLine& operator=(CLogLine const&) = delete;
    ~CLogLine();

    std::ostream& Stream() { return m_text; }

private:
    ELevel const m_level;
    std::ostringstream m_text;
};

/// Gives both arms of a log macro the same type; & binds weaker than << and stronger than ?:.
struct SDiscardStream
{
    void operator&(std::ostream&) const {}
};

} // namespace nelo_rpc::log

// Macros, so that what follows << is not evaluated for a line that nobody wants.
#define NELO_RPC_LOG_LINE(level)                                                                                       \
    !::nelo_rpc::log::IsLogged(level) ? (void)0                                                                        \
                                      : ::nelo_rpc::log::SDiscardStream() & ::nelo_rpc::log::CLogLine(level).Stream()

#define logDebug() NELO_RPC_LOG_LINE(::nelo_rpc::log::ELevel::Debug)
#define logInfo() NELO_RPC_LOG_LINE(::nelo_rpc::log::ELevel::Info)
#define logError() NELO_RPC_LOG_LINE(::nelo_rpc::log::ELevel::Error)
#define logFatal() NELO_RPC_LOG_LINE(::nelo_rpc::log::ELevel::Fatal)

/// A line that records an inconsistency names its place: file, function and line. The function is given, because the
/// text names the operation and not the helper that it may be split into. The format needs arguments of its own.
#define logInconsistencyAtLine(level, line, function, format, ...)                                                     \
    ::nelo_rpc::log::SystemLogBufferPrint(::nelo_rpc::log::MAIN_BUFFER, ::nelo_rpc::log::ELevel::level,                \
                                          ::nelo_rpc::log::TAG, "%s: %s(%d) > " format,                                \
                                          ::nelo_rpc::log::BaseName(__FILE__), function, line, __VA_ARGS__)
#define logInconsistency(level, function, format, ...)                                                                 \
    logInconsistencyAtLine(level, __LINE__, function, format, __VA_ARGS__)
