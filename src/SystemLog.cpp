#include "SystemLog.h"

#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/GuardedFunction.h>

#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

namespace nelo_rpc::log
{

namespace
{

std::atomic<ELevel> threshold{ELevel::Debug};

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

void write(ELevel level, char const* tag, std::string const& line)
{
    if (!currentSink().Call(level, line))
    {
        ::syslog(priorityOf(level), "%s: %s", tag, line.c_str());
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
    currentSink().Set(std::move(sink));
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
    m_text << "[" << ::syscall(SYS_gettid) << "] ";
}

CLogLine::~CLogLine()
{
    SystemLogPrint(m_level, TAG, "%s", m_text.str().c_str());
}

} // namespace nelo_rpc::log
