#include "BusTest.h"

#include <unistd.h>

#include <cstdio>

namespace
{

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool IS_SANITIZED = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool IS_SANITIZED = true;
#else
constexpr bool IS_SANITIZED = false;
#endif
#else
constexpr bool IS_SANITIZED = false;
#endif

constexpr std::size_t KIB = 1024;
constexpr std::size_t MIB = 1024 * KIB;

std::size_t sizeOf(CValueList const& list, int index)
{
    auto const entry = list.find(index);
    if (entry == list.end())
    {
        return 0;
    }
    auto const* const binary = dynamic_cast<nelo_rpc::types::CBinaryValue*>(entry->second.get());
    return binary != nullptr ? binary->GetSize() : 0;
}

class CDbusPortSizes : public CBusTest
{
protected:
    /// The first call brings the lines of a server's start with it: afterwards each error line is the test's.
    void SetUp() override { ASSERT_EQ(1, intOf(m_port.CallFunction(listOf(1), 0))); }

    /// What was logged as an error besides the missing reply itself.
    static int CountReasons(CLogCapture const& log)
    {
        return countLinesOf(log, ELevel::Error) -
               countLines(log, ELevel::Error, "CDbusPort::SendMessage received empty reply");
    }

    CEchoPort m_echo{m_server};
    CDbusPort m_port{m_client.c_str(), m_server.c_str(), false};
};

std::vector<std::uint8_t> patternOf(std::size_t size)
{
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i)
    {
        bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
    }
    return bytes;
}

struct SSize
{
    char const* label;
    std::size_t bytes;
    seconds limit; // far below what reading at the pace of the idle wait would take
};
void PrintTo(SSize const& size, std::ostream* out)
{
    *out << size.label;
}

class CDbusPortLargeValue : public CDbusPortSizes, public ::testing::WithParamInterface<SSize>
{
protected:
    static seconds Limit() { return GetParam().limit * (IS_SANITIZED ? 5 : 1); }

    void SetUp() override
    {
        CDbusPortSizes::SetUp();
        m_port.SetTimeoutMs(100000); // the limit of the test is the one that counts
    }
};

} // namespace

TEST_P(CDbusPortLargeValue, GoesThereAndBackQuicklyAndUnchanged)
{
    auto const bytes = patternOf(GetParam().bytes);
    auto const start = steady_clock::now();
    CValueList const result = m_port.CallFunction(listOf(bytes), 0);
    EXPECT_LT(since(start), Limit());
    ASSERT_EQ(1u, result.size());
    EXPECT_TRUE(bytes == nelo_rpc::types::unpackAt<std::vector<std::uint8_t>>(result, 0));
}

TEST_P(CDbusPortLargeValue, GoesThereAndBackAsText)
{
    std::string const text(GetParam().bytes, 't');
    CValueList const result = m_port.CallFunction(listOf(text), 0);

    ASSERT_EQ(1u, result.size());
    EXPECT_TRUE(text == nelo_rpc::types::unpackAt<std::string>(result, 0));
}

TEST_P(CDbusPortLargeValue, ArrivesAsACallback)
{
    CRawPeer peer;
    int const id = m_echo.Get().AddConnection(peer.GetUniqueName());
    auto const bytes = patternOf(GetParam().bytes);

    auto const start = steady_clock::now();
    EXPECT_TRUE(m_echo.Get().SendCallback(listOf(bytes), id));
    MessagePtr const signal = peer.Receive(DBUS_MESSAGE_TYPE_SIGNAL, seconds(60));
    EXPECT_LT(since(start), Limit());
    ASSERT_NE(nullptr, signal);
    CValueList const received = nelo_rpc::dbus::dbusMessageToValueList(signal.get());
    EXPECT_TRUE(bytes == nelo_rpc::types::unpackAt<std::vector<std::uint8_t>>(received, 0));
}

INSTANTIATE_TEST_SUITE_P(Sizes, CDbusPortLargeValue,
                         ::testing::Values(SSize{"Of64KiB", 64 * KIB, seconds(2)}, SSize{"Of1MiB", MIB, seconds(5)},
                                           SSize{"Of20MiB", 20 * MIB, seconds(20)}),
                         [](auto const& test) { return std::string(test.param.label); });

TEST_F(CDbusPortSizes, PassAListThatJustFitsTheBus)
{
    // The limit holds for the whole message; its header takes some hundred bytes.
    CValueList const result = m_port.CallFunction(listOfBytes(32 * MIB - 4 * KIB), 0);

    EXPECT_EQ(32 * MIB - 4 * KIB, sizeOf(result, 0));
}

TEST_F(CDbusPortSizes, RefuseACallThatTheBusWouldNotTake)
{
    CLogCapture log;

    EXPECT_TRUE(m_port.CallFunction(listOfBytes(32 * MIB), 0).empty());
    EXPECT_EQ(0, countLinesOf(log, ELevel::Fatal));
    EXPECT_GE(CountReasons(log), 1);
    EXPECT_EQ(0, log.Count("CDbusPort::OnDbusMessage received function call")) << "nothing was sent";
    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0))) << "the bus has not dropped the connection";
}

TEST_F(CDbusPortSizes, RefuseACallThatTheBusLibraryWouldAbortOn)
{
    CLogCapture log;

    EXPECT_TRUE(m_port.CallFunction(listOfBytes(65 * MIB), 0).empty());
    EXPECT_GE(CountReasons(log), 1);
    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0)));
}

TEST_F(CDbusPortSizes, RefuseACallWhoseValuesAreTooLargeTogether)
{
    std::vector<std::uint8_t> const half(17 * MIB);
    CLogCapture log;

    EXPECT_TRUE(m_port.CallFunction(listOf(half, half), 0).empty());
    EXPECT_GE(CountReasons(log), 1);
    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0)));
}

TEST_F(CDbusPortSizes, RefuseATextThatTheBusWouldNotTake)
{
    CLogCapture log;

    EXPECT_TRUE(m_port.CallFunction(listOf(std::string(32 * MIB, 'x')), 0).empty());
    EXPECT_GE(CountReasons(log), 1);
    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0)));
}

TEST_F(CDbusPortSizes, RefuseACallbackThatTheBusWouldNotTake)
{
    CRawPeer peer;
    int const id = m_echo.Get().AddConnection(peer.GetUniqueName());
    CLogCapture log;

    EXPECT_FALSE(m_echo.Get().SendCallback(listOfBytes(33 * MIB), id));
    EXPECT_GE(CountReasons(log), 1);
    EXPECT_TRUE(m_echo.Get().SendCallback(listOf(5), id));
    MessagePtr const signal = peer.Receive(DBUS_MESSAGE_TYPE_SIGNAL);
    ASSERT_NE(nullptr, signal);
    EXPECT_EQ("0 0 5", describeBody(signal.get()));
}

TEST_F(CDbusPortSizes, AnswerWithAnErrorWhenTheResultIsTooLarge)
{
    m_echo.Get().SetFunctionCallListener([](CValueList const& list, int, CRpcPort::ReplyFunction const& reply) {
        reply(intOf(list) == 1 ? listOfBytes(33 * MIB) : list);
    });
    CLogCapture log;

    auto const start = steady_clock::now();
    EXPECT_TRUE(m_port.CallFunction(listOf(1), 0).empty());
    EXPECT_LT(since(start), seconds(15)) << "an error answer, not a time-out";
    EXPECT_EQ(1, countLinesThatBegin(log, ELevel::Error, "Dbus error: "));
    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0)));
}

TEST_F(CDbusPortSizes, DoNotLetCallbacksThatNobodyReadsPileUp)
{
    // More than the bus library takes in before it stops reading a connection for ever.
    constexpr int CALLS = 80;
    m_echo.Get().SetFunctionCallListener([this](CValueList const& list, int id, CRpcPort::ReplyFunction const& reply) {
        m_echo.Get().SendCallback(listOfBytes(2 * MIB), id);
        reply(list);
    });
    for (int i = 0; i < CALLS; ++i)
    {
        ASSERT_EQ(i, intOf(m_port.CallFunction(listOf(i), 0)));
    }
}

namespace
{

std::size_t residentBytes()
{
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> const file(std::fopen("/proc/self/statm", "r"), &std::fclose);
    unsigned long pages = 0;
    unsigned long resident = 0;
    EXPECT_EQ(2, std::fscanf(file.get(), "%lu %lu", &pages, &resident));
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

} // namespace

TEST_F(CDbusPortSizes, LetCallbacksOutWhileCallsOfManyMebibytesAreUnderWay)
{
    constexpr std::size_t CALLS = 3;
    CInbox<CRpcPort::ReplyFunction> open;
    m_echo.Get().SetFunctionCallListener(
        [&](CValueList const&, int, CRpcPort::ReplyFunction const& reply) { open.Put(reply); });
    std::vector<std::future<int>> calls;
    for (std::size_t i = 0; i < CALLS; ++i)
    {
        calls.push_back(std::async(std::launch::async, [this] {
            CDbusPort port(CPrivateBus::UniqueName().c_str(), m_server.c_str(), false);
            port.SetTimeoutMs(100000);
            return intOf(port.CallFunction(listOfBytes(22 * MIB), 0));
        }));
    }
    ASSERT_TRUE(open.WaitForCount(CALLS, seconds(60)));

    EXPECT_TRUE(m_echo.Get().SendCallback(listOf(1), 0));
    for (auto const& reply : open.All())
    {
        reply(listOf(5));
    }
    for (auto& call : calls)
    {
        EXPECT_EQ(5, call.get());
    }
}

TEST_F(CDbusPortSizes, KeepNoMemoryForCallbacksThatNobodyReads)
{
    if (IS_SANITIZED)
    {
        // What is asserted is the memory of the process, which then grows with what was freed, too.
        GTEST_SKIP() << "a sanitizer keeps freed memory";
    }
    m_echo.Get().SetFunctionCallListener([this](CValueList const& list, int id, CRpcPort::ReplyFunction const& reply) {
        for (int i = 0; i < 16; ++i)
        {
            m_echo.Get().SendCallback(listOfBytes(64 * KIB), id);
        }
        reply(list);
    });
    m_port.CallFunction(listOf(0), 0);
    std::size_t const before = residentBytes();
    for (int i = 0; i < 50; ++i) // 50 MiB of callbacks: below what would cut the connection off
    {
        ASSERT_EQ(i, intOf(m_port.CallFunction(listOf(i), 0)));
    }

    EXPECT_LT(residentBytes(), before + 25 * MIB);
}

TEST_F(CDbusPortSizes, DoNotLetLateRepliesPileUp)
{
    constexpr int CALLS = 50;
    CInbox<CRpcPort::ReplyFunction> late;
    m_echo.Get().SetFunctionCallListener([&](CValueList const& list, int, CRpcPort::ReplyFunction const& reply) {
        if (intOf(list) == 0)
        {
            late.Put(reply);
            return;
        }
        late.All().back()(listOfBytes(2 * MIB));
        reply(list);
    });
    for (int i = 1; i <= CALLS; ++i)
    {
        m_port.SetTimeoutMs(1);
        EXPECT_TRUE(m_port.CallFunction(listOf(0), 0).empty());
        ASSERT_TRUE(late.WaitForCount(static_cast<std::size_t>(i)));
        m_port.SetTimeoutMs(20000);
        ASSERT_EQ(i, intOf(m_port.CallFunction(listOf(i), 0)));
    }
}
