#include "../../src/SystemLog.h"

#include "CChildProcess.h"
#include "CLogCapture.h"
#include "CLogDaemon.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

using nelo_rpc::log::ELevel;
using nelo_rpc::log::SetSink;
using nelo_rpc::log::SetSystemLogPath;
using nelo_rpc::log::SetThreshold;
using nelo_rpc::log::SystemLogPrint;
using nelo_rpc::log::TAG;

namespace
{

/// Sends the library's lines to the test's own daemon.
class SystemLog : public ::testing::Test
{
protected:
    SystemLog()
    {
        SetSystemLogPath(m_daemon.GetPath());
        SetSink({});
    }
    ~SystemLog() override
    {
        installStderrSink();
        SetThreshold(ELevel::Debug);
    }

    static void Log(std::string const& text, ELevel level = ELevel::Error)
    {
        SystemLogPrint(level, TAG, "%s", text.c_str());
    }

    /// What is behind the tag of a datagram.
    static std::string TextOf(std::string const& datagram)
    {
        auto const tag = datagram.find("NELO_RPC: ");
        return tag == std::string::npos ? "no tag in " + datagram : datagram.substr(tag + 10);
    }

    std::vector<std::string> ReadTexts() const
    {
        std::vector<std::string> texts;
        for (std::string const& datagram : m_daemon.ReadAll())
        {
            texts.push_back(TextOf(datagram));
        }
        return texts;
    }

    /// Logs until a line has waited in vain. @return the number of lines logged.
    int Stall() const
    {
        int const lines = 1000; // more than any queue holds
        for (int i = 0; i < lines; ++i)
        {
            Log("stalled " + std::to_string(i));
        }
        return lines;
    }

    static std::string ReportOf(std::size_t dropped)
    {
        return "[" + std::to_string(::syscall(SYS_gettid)) + "] CSystemLog dropped " + std::to_string(dropped) +
               " lines";
    }

    CLogDaemon m_daemon;
};

/// Reads all the while, and keeps the texts.
class CReader
{
public:
    explicit CReader(CLogDaemon const& daemon)
        : m_thread([this, &daemon] {
              while (!m_stop)
              {
                  if (auto datagram = daemon.Read(std::chrono::milliseconds(20)))
                  {
                      m_datagrams.push_back(*datagram);
                  }
              }
              for (std::string const& datagram : daemon.ReadAll())
              {
                  m_datagrams.push_back(datagram);
              }
          })
    {
    }

    std::vector<std::string> Stop()
    {
        m_stop = true;
        m_thread.join();
        return m_datagrams;
    }

private:
    std::atomic<bool> m_stop{false};
    std::vector<std::string> m_datagrams;
    std::thread m_thread;
};

} // namespace

TEST_F(SystemLog, WritesALineInTheFormOfTheSystemsOwnFunction)
{
    Log("[12] 100% of %s");
    auto const datagram = m_daemon.Read();

    ASSERT_TRUE(datagram);
    std::regex const form(R"(<11>[A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d unit_tests: NELO_RPC: \[12\] 100% of %s)");
    EXPECT_TRUE(std::regex_match(*datagram, form)) << *datagram;
}

TEST_F(SystemLog, GivesEachLevelItsPriority)
{
    std::map<ELevel, std::string> const priorities{
        {ELevel::Debug, "<15>"}, {ELevel::Info, "<14>"}, {ELevel::Error, "<11>"}, {ELevel::Fatal, "<10>"}};
    for (auto const& [level, priority] : priorities)
    {
        Log("x", level);
        auto const datagram = m_daemon.Read();
        ASSERT_TRUE(datagram);
        EXPECT_EQ(priority, datagram->substr(0, 4));
    }
}

/// Byte by byte, with both functions' lines in one socket. The program lives where it may make a /dev of its own.
TEST_F(SystemLog, WritesTheBytesThatTheSystemsOwnFunctionWrites)
{
    CChildProcess program({NELO_RPC_UNIT_DIR "/SystemLogProgram", "compare"});
    auto const first = program.ReadLine();
    if (first == "no namespace")
    {
        // Only a /dev of its own gives the test a /dev/log; that of the machine is nobody's to stop or to read.
        GTEST_SKIP() << "this user may not make a mount namespace";
    }
    auto const second = program.ReadLine();

    ASSERT_TRUE(first);
    ASSERT_NE(std::string::npos, first->find("SystemLogProgram: NELO_RPC: a line")) << *first;
    EXPECT_EQ(first, second);
    EXPECT_EQ("end", program.ReadLine());
}

TEST_F(SystemLog, GoesOnWhileTheApplicationIsStoppedInTheSystemsOwnFunction)
{
    CChildProcess program({NELO_RPC_UNIT_DIR "/SystemLogProgram", "stalled"});
    auto const line = program.ReadLine();
    if (line == "no namespace")
    {
        // Only a /dev of its own gives the test a /dev/log; that of the machine is nobody's to stop or to read.
        GTEST_SKIP() << "this user may not make a mount namespace";
    }

    EXPECT_EQ("logged", line);
}

TEST_F(SystemLog, TakesLinesOfStaticDestructors)
{
    CChildProcess program({NELO_RPC_UNIT_DIR "/SystemLogProgram", "exit", m_daemon.GetPath()});
    EXPECT_EQ(0, program.Wait());

    auto const texts = ReadTexts();
    EXPECT_EQ((std::vector<std::string>{"in main", "in a static destructor"}), texts);
}

TEST_F(SystemLog, WaitsForADaemonThatReads)
{
    SetSystemLogPath(m_daemon.GetPath(), std::chrono::seconds(30)); // on a busy machine a reader may be late
    CReader reader(m_daemon);
    std::vector<std::string> expected;
    for (int i = 0; i < 2000; ++i)
    {
        Log("line " + std::to_string(i));
        expected.push_back("line " + std::to_string(i));
    }

    std::vector<std::string> texts;
    for (std::string const& datagram : reader.Stop())
    {
        texts.push_back(TextOf(datagram));
    }
    EXPECT_EQ(expected, texts);
}

TEST_F(SystemLog, IsStoppedForNoThreadByADaemonThatDoesNotRead)
{
    constexpr int THREADS = 8;
    constexpr int LINES = 1000;
    auto const start = std::chrono::steady_clock::now();
    std::vector<std::future<void>> loggers;
    for (int thread = 0; thread < THREADS; ++thread)
    {
        loggers.push_back(std::async(std::launch::async, [thread] {
            for (int i = 0; i < LINES; ++i)
            {
                Log(std::to_string(thread) + " " + std::to_string(i));
            }
        }));
    }
    for (auto& logger : loggers)
    {
        ASSERT_EQ(std::future_status::ready, logger.wait_for(std::chrono::seconds(30)));
    }
    // One line has waited. If each did, it would be more than ten minutes.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));

    std::size_t const taken = ReadTexts().size();
    EXPECT_GT(taken, 0U);
    ASSERT_LT(taken, static_cast<std::size_t>(THREADS * LINES));
    Log("after it");
    Log("and once more");

    EXPECT_EQ((std::vector<std::string>{ReportOf(THREADS * LINES - taken), "after it", "and once more"}), ReadTexts());
}

TEST_F(SystemLog, DropsTheLatestLinesAndKeepsTheOrderOfTheOthers)
{
    Stall();
    auto const texts = ReadTexts();

    for (std::size_t i = 0; i < texts.size(); ++i)
    {
        EXPECT_EQ("stalled " + std::to_string(i), texts[i]);
    }
}

TEST_F(SystemLog, CountsAgainAfterAReport)
{
    auto const lines = static_cast<std::size_t>(Stall());
    auto const first = lines - ReadTexts().size();
    auto const second = static_cast<std::size_t>(Stall()); // the report takes a place in the queue
    auto const texts = ReadTexts();
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(ReportOf(first), texts[0]);

    Log("after it");
    EXPECT_EQ((std::vector<std::string>{ReportOf(second - (texts.size() - 1)), "after it"}), ReadTexts());
}

TEST_F(SystemLog, HoldsTheCountBackBelowTheThreshold)
{
    auto const lines = static_cast<std::size_t>(Stall());
    auto const dropped = lines - ReadTexts().size();
    SetThreshold(ELevel::Fatal);
    Log("fatal", ELevel::Fatal);
    EXPECT_EQ(std::vector<std::string>{"fatal"}, ReadTexts());

    SetThreshold(ELevel::Error);
    Log("error");
    EXPECT_EQ((std::vector<std::string>{ReportOf(dropped), "error"}), ReadTexts());
}

TEST_F(SystemLog, WaitsForADaemonThatReadsAgainWithAFatalLine)
{
    Stall();
    auto const logged = std::async(std::launch::async, [] { Log("last word", ELevel::Fatal); });
    EXPECT_EQ(std::future_status::timeout, logged.wait_for(std::chrono::milliseconds(20)));

    std::string latest;
    while (auto const datagram = latest == "last word" ? std::nullopt : m_daemon.Read())
    {
        latest = TextOf(*datagram);
    }
    EXPECT_EQ("last word", latest);
}

TEST_F(SystemLog, FindsADaemonThatWasStartedAnew)
{
    Log("to the first");
    EXPECT_EQ(std::vector<std::string>{"to the first"}, ReadTexts());
    m_daemon.Stop();
    m_daemon.Start();
    Log("to the second");

    EXPECT_EQ(std::vector<std::string>{"to the second"}, ReadTexts());
}

TEST_F(SystemLog, FindsADaemonThatWasStartedAnewAfterAStall)
{
    auto const lines = static_cast<std::size_t>(Stall());
    std::size_t const taken = ReadTexts().size();
    m_daemon.Stop();
    m_daemon.Start();
    Log("after it");

    EXPECT_EQ((std::vector<std::string>{ReportOf(lines - taken), "after it"}), ReadTexts());
}

TEST_F(SystemLog, SendsALongLineWhole)
{
    std::string const text(100000, 'x');
    Log(text);

    EXPECT_EQ(std::vector<std::string>{text}, ReadTexts());
}

TEST_F(SystemLog, DropsALineThatNoDatagramHoldsAndCountsIt)
{
    Log(std::string(10000000, 'x'));
    EXPECT_TRUE(ReadTexts().empty());
    Log("after it");

    EXPECT_EQ((std::vector<std::string>{ReportOf(1), "after it"}), ReadTexts());
}

TEST_F(SystemLog, KeepsTheLinesOfThreadsWholeAndInTheOrderOfEach)
{
    CReader reader(m_daemon);
    std::vector<std::thread> loggers;
    for (int thread = 0; thread < 8; ++thread)
    {
        loggers.emplace_back([thread] {
            for (int i = 0; i < 500; ++i)
            {
                Log(std::to_string(thread) + " " + std::to_string(i));
            }
        });
    }
    for (std::thread& logger : loggers)
    {
        logger.join();
    }

    Log("after them", ELevel::Fatal); // brings the number of the lines that a loaded machine may have lost

    std::regex const line(R"((\d) (\d+))");
    std::regex const report(R"(\[\d+\] CSystemLog dropped (\d+) lines)");
    std::map<std::string, int> next;
    int lines = 0;
    int dropped = 0;
    std::vector<std::string> others;
    for (std::string const& datagram : reader.Stop())
    {
        std::string const text = TextOf(datagram);
        std::smatch parts;
        if (std::regex_match(text, parts, line))
        {
            EXPECT_LE(next[parts[1]], std::stoi(parts[2])) << text;
            next[parts[1]] = std::stoi(parts[2]) + 1;
            ++lines;
        }
        else if (std::regex_match(text, parts, report))
        {
            dropped += std::stoi(parts[1]);
        }
        else
        {
            others.push_back(text);
        }
    }
    EXPECT_EQ(std::vector<std::string>{"after them"}, others);
    EXPECT_GT(lines, 0);
    EXPECT_EQ(4000, lines + dropped);
}

TEST_F(SystemLog, WorksInAChildThatIsForkedWhileOthersLog)
{
    CReader reader(m_daemon);
    std::atomic<bool> stop{false};
    std::vector<std::thread> loggers;
    for (int i = 0; i < 3; ++i)
    {
        loggers.emplace_back([&] {
            while (!stop)
            {
                Log("of the parent");
            }
        });
    }
    constexpr int CHILDREN = 50;
    for (int i = 0; i < CHILDREN; ++i)
    {
        pid_t const child = ::fork();
        ASSERT_NE(-1, child);
        if (child == 0)
        {
            ::alarm(20);                      // a lock that nobody gives back ends in a signal
            Log("of a child", ELevel::Fatal); // has patience however loaded the machine is
            ::_exit(0);
        }
        int status = -1;
        EXPECT_EQ(child, ::waitpid(child, &status, 0));
        EXPECT_EQ(0, status);
    }
    stop = true;
    for (std::thread& logger : loggers)
    {
        logger.join();
    }

    int ofChildren = 0;
    for (std::string const& datagram : reader.Stop())
    {
        ofChildren += TextOf(datagram) == "of a child" ? 1 : 0;
    }
    EXPECT_EQ(CHILDREN, ofChildren);
}

TEST_F(SystemLog, WritesNothingIntoADescriptorThatHasTakenThePlaceOfItsOwn)
{
    int const number = ::dup(STDERR_FILENO); // the next one to be given
    ASSERT_NE(-1, number);
    ::close(number);
    Log("before");
    ASSERT_EQ(1U, ReadTexts().size());

    int pair[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    ASSERT_EQ(number, ::dup2(pair[0], number));
    Log("after");

    EXPECT_EQ(std::vector<std::string>{"after"}, ReadTexts());
    char byte = 0;
    EXPECT_EQ(-1, ::recv(pair[1], &byte, 1, MSG_DONTWAIT));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(1, ::send(number, "x", 1, MSG_NOSIGNAL)); // and it was not closed
    ::close(pair[0]);
    ::close(pair[1]);
    ::close(number);
}

TEST_F(SystemLog, CountsLinesWhileThereIsNoDescriptorForIt)
{
    rlimit old = {};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &old));
    rlimit const none{0, old.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
    Log("lost");
    Log("lost too");
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &old));
    Log("back");
    EXPECT_EQ((std::vector<std::string>{ReportOf(2), "back"}), ReadTexts());

    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
    Log("with the descriptor that it has");
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &old));
    EXPECT_EQ(std::vector<std::string>{"with the descriptor that it has"}, ReadTexts());
}

TEST_F(SystemLog, LetsNoCancellationActInALine)
{
    std::atomic<bool> isBehind{false};
    std::thread cancelled([&] {
        ::pthread_cancel(::pthread_self());
        []() noexcept { Log("whole"); }(); // as the end of a line in a destructor
        isBehind = true;
        ::pthread_testcancel();
        isBehind = false; // not reached
    });
    cancelled.join();

    EXPECT_TRUE(isBehind);
    EXPECT_EQ(1U, ReadTexts().size());
}
