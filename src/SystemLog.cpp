#include "SystemLog.h"

#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/GuardedFunction.h>

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <mutex>
#include <utility>

namespace nelo_rpc::log
{

namespace
{

std::atomic<ELevel> threshold{ELevel::Debug};

/// Whether a sink may be installed. Without one a line takes no lock but the system log's own, which fork() knows of.
std::atomic<bool> isSinkSet{false};

/// Never destroyed, because threads that are alive at exit still log.
internal_guarded::CGuardedFunction<ELevel, std::string const&>& currentSink()
{
    static auto& sink = *new internal_guarded::CGuardedFunction<ELevel, std::string const&>;
    return sink;
}

int priorityOf(ELevel level)
{
    switch (level)
    {
    case ELevel::Debug:
        return LOG_DEBUG;
    case ELevel::Info:
        return LOG_INFO;
    case ELevel::Error:
        return LOG_ERR;
    case ELevel::Fatal:
        return LOG_CRIT;
    }
    return LOG_ERR;
}

std::string threadIdPrefix()
{
    return "[" + std::to_string(::syscall(SYS_gettid)) + "] ";
}

/// Writes to the log daemon's socket what syslog(3) would write, and is not stopped by a daemon that does not read.
///
/// syslog(3) itself waits for room in the socket without a limit, and with its lock held. A thread that called it in
/// place of the callers would keep that lock from every process that is forked meanwhile, so the socket is our own.
class CSystemLog
{
public:
    CSystemLog();
    CSystemLog(CSystemLog const&) = delete;
    CSystemLog& operator=(CSystemLog const&) = delete;

    void SetPath(std::string path, std::chrono::milliseconds patience);

    /// Delivers the line, or drops and counts it. False if there is no socket that could be written to.
    bool Write(ELevel level, char const* tag, std::string const& line);

private:
    using Milliseconds = std::chrono::milliseconds;

    enum class EOutcome
    {
        Delivered,
        Dropped,
        NobodyThere
    };

    /// The same for a process's last word, which nothing comes after that could be held up.
    static constexpr Milliseconds FATAL_PATIENCE{1000};

    EOutcome Report(char const* tag, Milliseconds patience);
    EOutcome Send(int priority, char const* tag, std::string const& text, Milliseconds patience);
    int SendOnce(std::string const& text, Milliseconds patience);
    bool WaitForRoom(std::chrono::steady_clock::time_point end);
    void SetHeader(int priority, char const* tag);
    bool IsOpen() const;
    int Open();
    void Close();

    std::mutex m_mutex; ///< guards everything below; held by whoever forks
    std::string m_path{"/dev/log"};
    int m_socket = -1;
    struct stat m_identity = {};
    std::string m_header;
    std::time_t m_second = -1;
    char m_time[32] = "";
    Milliseconds m_longestPatience = PATIENCE;
    Milliseconds m_patience = PATIENCE;
    unsigned long m_dropped = 0;
};

/// Never destroyed, as above.
CSystemLog& systemLog()
{
    static auto& log = *new CSystemLog;
    return log;
}

CSystemLog::CSystemLog()
{
    // A child has none of the other threads, so none of them may be inside when it is made. That includes the C
    // library's lock around the time zone.
    static std::mutex* held;
    held = &m_mutex;
    ::pthread_atfork([] { held->lock(); }, [] { held->unlock(); }, [] { held->unlock(); });
}

void CSystemLog::SetPath(std::string path, std::chrono::milliseconds patience)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    Close();
    m_path = std::move(path);
    m_longestPatience = patience;
    m_patience = patience;
    m_dropped = 0;
}

bool CSystemLog::Write(ELevel level, char const* tag, std::string const& line)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    EOutcome outcome = EOutcome::Delivered;
    if (m_dropped > 0 && IsLogged(ELevel::Error))
    {
        outcome = Report(tag, level == ELevel::Fatal ? FATAL_PATIENCE : m_patience);
    }
    if (outcome == EOutcome::Delivered)
    {
        outcome = Send(priorityOf(level), tag, line, level == ELevel::Fatal ? FATAL_PATIENCE : m_patience);
    }
    if (outcome == EOutcome::Dropped)
    {
        ++m_dropped;
    }
    return outcome != EOutcome::NobodyThere;
}

CSystemLog::EOutcome CSystemLog::Report(char const* tag, Milliseconds patience)
{
    std::string const text = threadIdPrefix() + "CSystemLog dropped " + std::to_string(m_dropped) + " lines";
    EOutcome const outcome = Send(LOG_ERR, tag, text, patience);
    if (outcome == EOutcome::Delivered)
    {
        m_dropped = 0;
    }
    return outcome;
}

CSystemLog::EOutcome CSystemLog::Send(int priority, char const* tag, std::string const& text, Milliseconds patience)
{
    SetHeader(priority, tag);
    // Twice, because a daemon that was started anew has a socket of its own under the same name.
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        int error = IsOpen() ? 0 : Open();
        switch (error)
        {
        case 0:
            break;
        case EMFILE:
        case ENFILE:
        case ENOBUFS:
        case ENOMEM:
            return EOutcome::Dropped; // syslog(3) may have a socket, and wait
        default:
            return EOutcome::NobodyThere;
        }

        error = SendOnce(text, patience);
        switch (error)
        {
        case 0:
            return EOutcome::Delivered;
        case EAGAIN:
        case EMSGSIZE:
        case ENOBUFS:
        case ENOMEM:
            return EOutcome::Dropped;
        default:
            Close();
        }
    }
    return EOutcome::NobodyThere;
}

/// Zero or the error.
int CSystemLog::SendOnce(std::string const& text, Milliseconds patience)
{
    // The cast is the interface's: nothing is written through what an iovec points to when it is sent.
    iovec parts[] = {{m_header.data(), m_header.size()}, {const_cast<char*>(text.data()), text.size()}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = std::size(parts);

    std::chrono::steady_clock::time_point end{};
    while (::sendmsg(m_socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
    {
        if (errno != EAGAIN)
        {
            return errno;
        }
        if (end == std::chrono::steady_clock::time_point{})
        {
            end = std::chrono::steady_clock::now() + patience;
        }
        if (!WaitForRoom(end))
        {
            // Nobody reads. From here on lines are dropped at once, and each one that is taken earns a little
            // patience again, so that a daemon that only just moves does not hold every line up.
            m_patience = Milliseconds::zero();
            return EAGAIN;
        }
    }
    m_patience = std::min(m_patience + Milliseconds(1), m_longestPatience);
    return 0;
}

/// False if the time is over.
bool CSystemLog::WaitForRoom(std::chrono::steady_clock::time_point end)
{
    auto const left = std::chrono::ceil<Milliseconds>(end - std::chrono::steady_clock::now());
    if (left <= Milliseconds::zero())
    {
        return false;
    }
    pollfd room = {m_socket, POLLOUT, 0};
    return ::poll(&room, 1, static_cast<int>(left.count())) != 0; // interrupted: the caller looks again
}

void CSystemLog::SetHeader(int priority, char const* tag)
{
    std::time_t const now = std::time(nullptr);
    if (now != m_second)
    {
        std::tm local = {};
        ::localtime_r(&now, &local);
        // Not by strftime(), which writes the month in the application's language.
        constexpr char const* MONTHS = "JanFebMarAprMayJunJulAugSepOctNovDec";
        std::snprintf(m_time, sizeof(m_time), "%.3s %2d %02d:%02d:%02d", MONTHS + 3 * local.tm_mon, local.tm_mday,
                      local.tm_hour, local.tm_min, local.tm_sec);
        m_second = now;
    }
    m_header.clear();
    m_header.append("<").append(std::to_string(LOG_USER | priority)).append(">");
    m_header.append(m_time).append(" ").append(program_invocation_short_name).append(": ");
    m_header.append(tag).append(": ");
}

/// Also looks whether the descriptor is still ours: a process that becomes a daemon closes them all, and what the
/// number then belongs to must not be written to.
bool CSystemLog::IsOpen() const
{
    struct stat now = {};
    return m_socket >= 0 && ::fstat(m_socket, &now) == 0 && now.st_dev == m_identity.st_dev &&
           now.st_ino == m_identity.st_ino;
}

/// Zero or the error.
int CSystemLog::Open()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (m_path.size() >= sizeof(address.sun_path))
    {
        return ENAMETOOLONG;
    }
    m_path.copy(address.sun_path, m_path.size());

    m_socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_socket < 0)
    {
        return errno;
    }
    if (::connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::fstat(m_socket, &m_identity) != 0)
    {
        int const error = errno;
        ::close(m_socket);
        m_socket = -1;
        return error;
    }
    return 0;
}

void CSystemLog::Close()
{
    if (IsOpen())
    {
        ::close(m_socket);
    }
    m_socket = -1;
}

std::string formatted(char const* format, std::va_list arguments)
{
    std::va_list again;
    va_copy(again, arguments);
    int const length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

void writeToSystemLog(ELevel level, char const* tag, std::string const& line)
{
    // Nearly everything below is a point where a thread may be cancelled, and a line's destructor cannot be unwound.
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    if (!systemLog().Write(level, tag, line))
    {
        // It has a console and a standard error to turn to, and it knows daemons that listen on a stream.
        ::syslog(priorityOf(level), "%s: %s", tag, line.c_str());
    }
}

void write(ELevel level, char const* tag, std::string const& line)
{
    if (!isSinkSet || !currentSink().Call(level, line))
    {
        writeToSystemLog(level, tag, line);
    }
}

} // namespace

void SetThreshold(ELevel lowest)
{
    threshold.store(lowest, std::memory_order_relaxed);
}

void SetSink(Sink sink)
{
    CCancellationGuard const guard;
    // In an order in which no sink is ever installed with the flag down.
    if (sink)
    {
        currentSink().Set(std::move(sink));
        isSinkSet = true;
    }
    else
    {
        isSinkSet = false;
        currentSink().Set({});
    }
}

void SetSystemLogPath(std::string path, std::chrono::milliseconds patience)
{
    systemLog().SetPath(std::move(path), patience);
}

bool IsLogged(ELevel level)
{
    return level >= threshold.load(std::memory_order_relaxed);
}

void SystemLogPrint(ELevel level, char const* tag, char const* format, ...)
{
    if (!IsLogged(level))
    {
        return;
    }
    std::va_list arguments;
    va_start(arguments, format);
    write(level, tag, formatted(format, arguments));
    va_end(arguments);
}

void SystemLogBufferPrint(int /*bufferId*/, ELevel level, char const* tag, char const* format, ...)
{
    if (!IsLogged(level))
    {
        return;
    }
    std::va_list arguments;
    va_start(arguments, format);
    write(level, tag, formatted(format, arguments));
    va_end(arguments);
}

char const* BaseName(char const* path)
{
    char const* const slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

CLogLine::CLogLine(ELevel level) : m_level(level)
{
    m_text << threadIdPrefix();
}

CLogLine::~CLogLine()
{
    SystemLogPrint(m_level, TAG, "%s", m_text.str().c_str());
}

} // namespace nelo_rpc::log
