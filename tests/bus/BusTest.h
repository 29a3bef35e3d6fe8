#pragma once

#include "CGate.h"
#include "CInbox.h"
#include "CLogCapture.h"
#include "CPrivateBus.h"
#include "CRawPeer.h"
#include "Eventually.h"
#include "ExpectAbort.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

using nelo_rpc::CDbusPort;
using nelo_rpc::CRpcPort;
using nelo_rpc::log::ELevel;
using nelo_rpc::types::CValueList;

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

/// A list with typed values at 0, 1, ...
template <class... A>
CValueList listOf(A const&... values)
{
    CValueList list;
    int index = 0;
    ((list[index++] = nelo_rpc::types::packValue<A>(values)), ...);
    return list;
}

inline CValueList listOfBytes(std::size_t size)
{
    return listOf(std::vector<std::uint8_t>(size, 0x5a));
}

/// The integer at 0, or -1 for an empty list: a call that failed.
inline int intOf(CValueList const& list)
{
    return list.count(0) != 0 ? nelo_rpc::types::unpackAt<int>(list, 0) : -1;
}

/// How often this exact text was logged at this level, the thread id in front aside.
inline int countLines(CLogCapture const& log, ELevel level, std::string const& text)
{
    auto const texts = log.Texts(level);
    return static_cast<int>(std::count(texts.begin(), texts.end(), text));
}

inline int countLinesThatBegin(CLogCapture const& log, ELevel level, std::string const& beginning)
{
    auto const texts = log.Texts(level);
    return static_cast<int>(std::count_if(texts.begin(), texts.end(),
                                          [&](std::string const& text) { return text.rfind(beginning, 0) == 0; }));
}

inline int countLinesOf(CLogCapture const& log, ELevel level)
{
    return static_cast<int>(log.Texts(level).size());
}

/// The thread that receives for the port made since the log began, as the kernel names it; 0 if none starts.
int waitForReceiver(CLogCapture& log);

/// Whether a thread of this process lives. The kernel still shows one for a moment after it was joined.
bool isThreadAlive(int threadId);

/// An asynchronous port that answers each call with its own arguments, on the receiver thread.
class CEchoPort
{
public:
    explicit CEchoPort(std::string const& name) : m_port(name.c_str(), true)
    {
        m_port.SetFunctionCallListener(
            [](CValueList const& call, int, CRpcPort::ReplyFunction const& reply) { reply(call); });
    }

    CDbusPort& Get() { return m_port; }

private:
    CDbusPort m_port;
};

/// A parameter of a test that is better not printed as it is.
struct SLabelled
{
    char const* label;
    char const* text;
};
inline void PrintTo(SLabelled const& labelled, std::ostream* out)
{
    *out << labelled.label;
}
inline std::string labelOf(::testing::TestParamInfo<SLabelled> const& info)
{
    return info.param.label;
}

/// Two names for a server and a client of one test.
class CBusTest : public ::testing::Test
{
protected:
    std::string const m_server = CPrivateBus::UniqueName();
    std::string const m_client = CPrivateBus::UniqueName();
};
