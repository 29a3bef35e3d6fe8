#include "../../src/SystemLog.h"

#include "CLogCapture.h"
#include "CLogDaemon.h"
#include "Eventually.h"
#include "ExpectAbort.h"

#include <nelo_rpc/CRpcHost.h>
#include <nelo_rpc/CRpcPort.h>
#include <nelo_rpc/Log.h>
#include <nelo_rpc/Values.h>
#include <nelo_rpc/dbusport/DbusMarshalling.h>

#include <dbus/dbus.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <future>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace nelo_rpc::types;
using nelo_rpc::log::ELevel;
using nelo_rpc::log::SetSink;
using nelo_rpc::log::SetThreshold;

namespace
{

/// What reached the system log, which is replaced by the functions below for the whole executable: a test must
/// neither need a running log service nor write into the machine's.
struct SSystemLog
{
    struct SEntry
    {
        int priority;
        std::string text;
    };

    void Add(int priority, char const* format, va_list args)
    {
        char text[1024];
        std::vsnprintf(text, sizeof(text), format, args);
        std::lock_guard<std::mutex> const lock(mutex);
        entries.push_back({priority, text});
    }
    std::vector<SEntry> Take()
    {
        std::lock_guard<std::mutex> const lock(mutex);
        return std::exchange(entries, {});
    }

    std::mutex mutex;
    std::vector<SEntry> entries;
};

SSystemLog& systemLog()
{
    static SSystemLog& log = *new SSystemLog; // never destroyed, as threads may log until the very end
    return log;
}

} // namespace

extern "C" __attribute__((visibility("default"))) void vsyslog(int priority, char const* format, va_list args)
{
    systemLog().Add(priority, format, args);
}

extern "C" __attribute__((visibility("default"))) void syslog(int priority, char const* format, ...)
{
    va_list args;
    va_start(args, format);
    systemLog().Add(priority, format, args);
    va_end(args);
}

// What the two become in a build that checks formats at run time.
extern "C" __attribute__((visibility("default"))) void __vsyslog_chk(int priority, int, char const* format,
                                                                     va_list args)
{
    systemLog().Add(priority, format, args);
}

extern "C" __attribute__((visibility("default"))) void __syslog_chk(int priority, int, char const* format, ...)
{
    va_list args;
    va_start(args, format);
    systemLog().Add(priority, format, args);
    va_end(args);
}

namespace
{
/// A port that is connected to nothing; what is handed to it without a listener gives an error line.
class CLoosePort : public nelo_rpc::CRpcPort
{
public:
    CValueList CallFunction(CValueList const& /*call*/, int /*connectionId*/) override { return {}; }
    bool SendCallback(CValueList const& /*callback*/, int /*connectionId*/) override { return true; }
    bool IsConnected(int /*connectionId*/) const override { return true; }
    void SetTimeoutMs(int /*timeoutMs*/) override {}
};

constexpr char const* ERROR_TEXT = "Callback Listener is empty";
constexpr char const* DEBUG_TEXT = "nelo_rpc::dbus::dbusMessageToValueList";

void logAnErrorLine()
{
    CLoosePort port;
    CValueList list;
    port.OnCallback(list);
}

void logTwoDebugLines()
{
    nelo_rpc::dbus::dbusMessageToValueList(nullptr);
}

std::string threadIdPrefix()
{
    return "[" + std::to_string(::syscall(SYS_gettid)) + "] ";
}

/// Counts how often it is rendered.
class CCountedValue : public CBinaryValue
{
public:
    explicit CCountedValue(std::shared_ptr<std::atomic<int>> renderings)
        : CBinaryValue("x", 1, 0), m_renderings(std::move(renderings))
    {
    }
    std::string ToString() const override
    {
        ++*m_renderings;
        return CBinaryValue::ToString();
    }

private:
    std::shared_ptr<std::atomic<int>> m_renderings;
};

/// Puts the threshold back, which belongs to the whole process. No daemon listens, whatever the machine has, so what
/// goes to the system log goes to syslog(3).
class Log : public ::testing::Test
{
protected:
    Log() { nelo_rpc::log::SetSystemLogPath("/nonexistent/log"); }
    ~Log() override { SetThreshold(ELevel::Debug); }
};
using LogDeathTest = Log;
} // namespace

// ---- threshold ----

TEST_F(Log, LetsEveryLineThroughByDefault)
{
    CLogCapture capture;
    logTwoDebugLines();
    logAnErrorLine();

    EXPECT_EQ((std::vector<std::string>{DEBUG_TEXT, std::string(DEBUG_TEXT) + " returning empty list"}),
              capture.Texts(ELevel::Debug));
    EXPECT_EQ((std::vector<std::string>{ERROR_TEXT}), capture.Texts(ELevel::Error));
}

TEST_F(Log, OfThresholdErrorDropsDebugLinesAndKeepsErrorLines)
{
    CLogCapture capture;
    SetThreshold(ELevel::Error);
    logTwoDebugLines();
    logAnErrorLine();

    EXPECT_EQ((std::vector<std::string>{ERROR_TEXT}), capture.Texts());
}

TEST_F(Log, OfThresholdFatalDropsErrorLines)
{
    CLogCapture capture;
    SetThreshold(ELevel::Fatal);
    logTwoDebugLines();
    logAnErrorLine();

    EXPECT_TRUE(capture.Texts().empty());
}

TEST_F(Log, OfThresholdInfoKeepsInfoLinesAndDropsDebugLines)
{
    CLogCapture capture;
    SetThreshold(ELevel::Info);
    {
        CLoosePort port;
        nelo_rpc::CRpcHost host(port);
        host.RegisterActorType("Thing", nelo_rpc::SActorType{[]() -> void* { return new int(0); },
                                                             [](void* object) { delete static_cast<int*>(object); },
                                                             [](nelo_rpc::CActor&) {}});
        CValueList const call{{-1, makeValue<std::string>("ctor")},
                              {-2, makeValue<int>(0)},
                              {-4, makeValue<std::string>("CClientConnection")},
                              {0, makeValue<std::string>("Thing")}};
        auto const answered = std::make_shared<std::promise<void>>();
        port.OnFunctionCall(call, 0, [answered](CValueList const&) { answered->set_value(); });
        ASSERT_EQ(std::future_status::ready, answered->get_future().wait_for(std::chrono::seconds(10)));
    }

    EXPECT_FALSE(capture.Texts(ELevel::Info).empty());
    EXPECT_TRUE(capture.Texts(ELevel::Debug).empty());
}

TEST_F(Log, OfALoweredThresholdLetsLinesThroughAgain)
{
    CLogCapture capture;
    SetThreshold(ELevel::Fatal);
    logTwoDebugLines();
    SetThreshold(ELevel::Debug);
    EXPECT_TRUE(capture.Texts().empty());
    logTwoDebugLines();

    EXPECT_EQ(2U, capture.Texts().size());
}

TEST_F(Log, BuildsNothingForALineBelowTheThreshold)
{
    CLogCapture capture;
    auto const renderings = std::make_shared<std::atomic<int>>(0);
    CValueList const list{{0, std::make_shared<CCountedValue>(renderings)}};
    auto const send = [&] { dbus_message_unref(nelo_rpc::dbus::valueListToCallback("org.example.peer", list)); };

    send();
    EXPECT_EQ(1, *renderings); // the line that shows the list

    SetThreshold(ELevel::Info);
    send();
    EXPECT_EQ(1, *renderings);
}

TEST_F(LogDeathTest, OfEveryThresholdKeepsFatalLines)
{
    SetThreshold(ELevel::Fatal);
    EXPECT_ABORT(extract<int>(*makeValue<std::string>("5")), R"(\[[0-9]+\] wrong type in CValue)");
}

// ---- lines ----

TEST_F(Log, GivesTheSinkTheWholeLineWithTheThreadsKernelIdInFront)
{
    CLogCapture capture;
    logAnErrorLine();

    ASSERT_EQ(1U, capture.Lines().size());
    EXPECT_EQ(threadIdPrefix() + ERROR_TEXT, capture.Lines()[0].line);
    EXPECT_EQ(ELevel::Error, capture.Lines()[0].level);
}

TEST_F(Log, NamesTheThreadThatLogs)
{
    CLogCapture capture;
    std::string prefixOfOther;
    std::thread other([&] {
        prefixOfOther = threadIdPrefix();
        logAnErrorLine();
    });
    other.join();
    logAnErrorLine();

    ASSERT_EQ(2U, capture.Lines().size());
    EXPECT_EQ(prefixOfOther + ERROR_TEXT, capture.Lines()[0].line);
    EXPECT_EQ(threadIdPrefix() + ERROR_TEXT, capture.Lines()[1].line);
    EXPECT_NE(prefixOfOther, threadIdPrefix());
}

TEST_F(Log, RunsTheSinkOnTheThreadThatLogs)
{
    std::thread::id sinkThread;
    SetSink([&](ELevel, std::string const&) { sinkThread = std::this_thread::get_id(); });
    std::thread::id loggingThread;
    std::thread other([&] {
        loggingThread = std::this_thread::get_id();
        logAnErrorLine();
    });
    other.join();
    installStderrSink();

    EXPECT_EQ(loggingThread, sinkThread);
}

TEST_F(Log, HandsOverLinesWithoutALineEnd)
{
    CLogCapture capture;
    logTwoDebugLines();
    logAnErrorLine();

    for (CLogCapture::SLine const& line : capture.Lines())
    {
        EXPECT_EQ(std::string::npos, line.line.find('\n')) << line.line;
    }
}

TEST_F(Log, DoesNotMixTheLinesOfThreadsThatLogAtOnce)
{
    CLogCapture capture;
    std::vector<std::thread> loggers;
    for (int i = 0; i < 4; ++i)
    {
        loggers.emplace_back([] {
            for (int n = 0; n < 100; ++n)
            {
                logTwoDebugLines();
            }
        });
    }
    for (std::thread& logger : loggers)
    {
        logger.join();
    }

    auto const lines = capture.Lines();
    EXPECT_EQ(800U, lines.size());
    std::regex const whole(R"(\[\d+\] nelo_rpc::dbus::dbusMessageToValueList( returning empty list)?)");
    for (CLogCapture::SLine const& line : lines)
    {
        EXPECT_TRUE(std::regex_match(line.line, whole)) << line.line;
    }
}

// ---- sink ----

TEST_F(Log, HandsLinesToTheLatestSinkOnly)
{
    int first = 0;
    int second = 0;
    SetSink([&](ELevel, std::string const&) { ++first; });
    logAnErrorLine();
    SetSink([&](ELevel, std::string const&) { ++second; });
    logAnErrorLine();
    installStderrSink();
    logAnErrorLine();

    EXPECT_EQ(1, first);
    EXPECT_EQ(1, second);
}

TEST_F(Log, DestroysASinkThatIsReplaced)
{
    auto const owned = std::make_shared<int>(0);
    SetSink([owned](ELevel, std::string const&) {});
    EXPECT_EQ(2, owned.use_count());
    installStderrSink();

    EXPECT_EQ(1, owned.use_count());
}

TEST_F(Log, ReplacesASinkOnlyWhenItIsNotRunningOnAnotherThread)
{
    std::promise<void> entered;
    std::promise<void> release;
    auto const released = release.get_future().share();
    SetSink([&, released](ELevel, std::string const&) {
        entered.set_value();
        released.wait();
    });
    std::thread logger(&logAnErrorLine);
    entered.get_future().wait();

    auto replaced = std::async(std::launch::async, &installStderrSink);
    EXPECT_EQ(std::future_status::timeout, replaced.wait_for(std::chrono::milliseconds(100)));

    release.set_value();
    EXPECT_EQ(std::future_status::ready, replaced.wait_for(std::chrono::seconds(10)));
    logger.join();
}

TEST_F(Log, CallsNoSinkAnyMoreThatWasReplacedWhileOthersLog)
{
    struct SUse
    {
        bool installed = true; // plain on purpose: a late call is a race that the thread sanitizer sees
        std::atomic<int> lines{0};
        std::atomic<int> late{0};
    };
    std::atomic<bool> stop{false};
    std::vector<std::thread> loggers;
    for (int i = 0; i < 3; ++i)
    {
        loggers.emplace_back([&] {
            while (!stop)
            {
                logTwoDebugLines();
            }
        });
    }

    std::vector<std::unique_ptr<SUse>> uses; // kept, so that a late call is counted and not a crash
    for (int i = 0; i < 200; ++i)
    {
        SUse& use = *uses.emplace_back(std::make_unique<SUse>());
        SetSink([&use](ELevel, std::string const&) { ++(use.installed ? use.lines : use.late); });
        EXPECT_TRUE(eventually([&] { return use.lines > 0; }));
        installStderrSink();
        use.installed = false;
    }
    stop = true;
    for (std::thread& logger : loggers)
    {
        logger.join();
    }

    for (auto const& use : uses)
    {
        EXPECT_EQ(0, use->late);
    }
}

TEST_F(Log, ChangesItsThresholdWhileOthersLog)
{
    CLogCapture capture;
    std::atomic<bool> stop{false};
    std::thread logger([&] {
        while (!stop)
        {
            logTwoDebugLines();
        }
    });
    for (int i = 0; i < 1000; ++i)
    {
        SetThreshold(i % 2 == 0 ? ELevel::Error : ELevel::Debug);
    }
    ASSERT_TRUE(capture.WaitFor(DEBUG_TEXT, 2)); // the threshold ends at Debug
    stop = true;
    logger.join();
}

// ---- system log ----

TEST_F(Log, GoesToTheSystemLogUnderItsTagWhenTheSinkIsEmpty)
{
    SetSink({});
    systemLog().Take();
    logAnErrorLine();
    auto const entries = systemLog().Take();
    installStderrSink();

    ASSERT_EQ(1U, entries.size());
    EXPECT_EQ("NELO_RPC: " + threadIdPrefix() + ERROR_TEXT, entries[0].text);
    EXPECT_EQ(LOG_ERR, LOG_PRI(entries[0].priority));
}

TEST_F(Log, GivesTheSystemLogThePriorityOfTheLine)
{
    SetSink({});
    systemLog().Take();
    logTwoDebugLines();
    auto const entries = systemLog().Take();
    installStderrSink();

    ASSERT_EQ(2U, entries.size());
    EXPECT_EQ(LOG_DEBUG, LOG_PRI(entries[0].priority));
}

TEST_F(Log, KeepsPercentSignsOfALineOutOfTheFormat)
{
    SetSink({});
    systemLog().Take();
    dbus_message_unref(
        nelo_rpc::dbus::valueListToCallback("org.example.peer", CValueList{{0, makeValue<std::string>("100% %s %n")}}));
    auto const entries = systemLog().Take();
    installStderrSink();

    ASSERT_EQ(2U, entries.size());
    EXPECT_NE(std::string::npos, entries[0].text.find("= 100% %s %n) | }"));
}

TEST_F(Log, SendsNothingToTheSystemLogWhileThereIsASink)
{
    systemLog().Take();
    CLogCapture capture;
    logAnErrorLine();

    EXPECT_TRUE(systemLog().Take().empty());
}

TEST_F(Log, HoldsTheThresholdForTheSystemLogToo)
{
    SetThreshold(ELevel::Error);
    SetSink({});
    systemLog().Take();
    logTwoDebugLines();
    auto const entries = systemLog().Take();
    installStderrSink();

    EXPECT_TRUE(entries.empty());
}

TEST_F(Log, LeavesADaemonThatListensOnAStreamToTheSystemsOwnFunction)
{
    CLogDaemon daemon;
    daemon.Stop();
    daemon.Start(SOCK_STREAM);
    nelo_rpc::log::SetSystemLogPath(daemon.GetPath());
    SetSink({});
    systemLog().Take();
    logAnErrorLine();
    auto const entries = systemLog().Take();
    installStderrSink();

    ASSERT_EQ(1U, entries.size());
    EXPECT_EQ("NELO_RPC: " + threadIdPrefix() + ERROR_TEXT, entries[0].text);
}

TEST_F(Log, LeavesTheLinesOfADaemonThatHasGoneToTheSystemsOwnFunction)
{
    CLogDaemon daemon;
    nelo_rpc::log::SetSystemLogPath(daemon.GetPath());
    SetSink({});
    systemLog().Take();
    logAnErrorLine();
    EXPECT_TRUE(systemLog().Take().empty());
    EXPECT_EQ(1U, daemon.ReadAll().size());

    daemon.Stop();
    logAnErrorLine();
    auto const entries = systemLog().Take();
    installStderrSink();
    daemon.Start();

    EXPECT_EQ(1U, entries.size());
}
