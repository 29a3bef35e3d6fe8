/// A call reads its reply itself, and the delivery of callbacks ends just when the reply arrives: after the caller has
/// looked for it, and before it waits for more.
///
/// usage: DeliveryEndProgram <bus name>
///
/// says:  "answered" if the call has its reply when that is there, "late" if at the end of its time only

#include "CGate.h"
#include "CInbox.h"
#include "Eventually.h"
#include "ProgramSupport.h"

#include <nelo_rpc/nelo_rpc.h>

#include <dlfcn.h>
#include <poll.h>
#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>

using nelo_rpc::CCallbackDelivery;
using nelo_rpc::CDbusPort;
using nelo_rpc::CRpcPort;
using nelo_rpc::types::CValueList;

namespace
{

CGate g_callerWaits;
CGate g_readerIsWoken; // by the end of the delivery
CGate g_replyIsThere;

CInbox<CRpcPort::ReplyFunction> g_calls;
CGate g_deliveryEnded;

std::atomic<bool> g_readerWaits{false};

thread_local int t_waitsOfCaller = -1; // on no other thread

template <class Function>
Function* functionOfSystem(char const* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

int pollOfSystem(pollfd* fds, nfds_t count, int timeoutMs)
{
    static auto* const function = functionOfSystem<int(pollfd*, nfds_t, int)>("poll");
    return function(fds, count, timeoutMs);
}

/// The caller has been woken by the end of the delivery, and has found nothing.
void letTheReplyArrive(pollfd* fds, nfds_t count)
{
    g_readerIsWoken.Wait();
    g_calls.All().back()({{0, nelo_rpc::types::packValue<int>(1)}});
    pollOfSystem(fds, count, 20000);
    g_replyIsThere.Open();
    g_deliveryEnded.Wait();
}

} // namespace

// In place of the system's, for the library too.

extern "C" int poll(pollfd* fds, nfds_t count, int timeoutMs)
{
    if (t_waitsOfCaller >= 0 && count == 2)
    {
        ++t_waitsOfCaller;
        if (t_waitsOfCaller == 1)
        {
            g_callerWaits.Open();
        }
        else if (t_waitsOfCaller == 2)
        {
            letTheReplyArrive(fds, count);
        }
    }
    return pollOfSystem(fds, count, timeoutMs);
}

extern "C" int epoll_wait(int epollFd, epoll_event* events, int maxEvents, int timeoutMs)
{
    bool const isReader = timeoutMs < 0; // receivers look again after a while
    g_readerWaits = g_readerWaits || isReader;
    static auto* const function = functionOfSystem<int(int, epoll_event*, int, int)>("epoll_wait");
    int const count = function(epollFd, events, maxEvents, timeoutMs);
    g_readerWaits = g_readerWaits && !isReader;
    if (isReader && g_callerWaits.IsOpen())
    {
        g_readerIsWoken.Open();
        g_replyIsThere.Wait();
    }
    return count;
}

int main(int argc, char** argv)
{
    if (argc < 2)
    {
        return 2;
    }
    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Fatal);
    CDbusPort server(argv[1], true);
    server.SetFunctionCallListener(
        [](CValueList const&, int, CRpcPort::ReplyFunction const& reply) { g_calls.Put(reply); });
    CDbusPort client("", argv[1], false);
    client.SetTimeoutMs(10000); // when a caller looks once more
    auto delivery = std::make_unique<CCallbackDelivery>(client);

    // What the bus has to say to a new connection is read before the reply to this one. Then nothing wakes the reader.
    auto first = std::async(std::launch::async, [&] { return client.CallFunction({}, 0).size(); });
    g_calls.WaitForCount(1);
    g_calls.All().front()({});
    first.wait();
    eventually([] { return g_readerWaits.load(); });

    auto call = std::async(std::launch::async, [&] {
        t_waitsOfCaller = 0;
        return client.CallFunction({}, 0).size();
    });
    g_callerWaits.Wait();
    g_calls.WaitForCount(2);
    delivery.reset();
    g_deliveryEnded.Open();
    bool const isInTime = call.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    say(call.get() == 1 && isInTime ? "answered" : "late");
    return 0;
}
