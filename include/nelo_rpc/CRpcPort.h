#pragma once

#include <nelo_rpc/CCallOptions.h>
#include <nelo_rpc/CCallResult.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Export.h>
#include <nelo_rpc/GuardedFunction.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace nelo_rpc
{

/// Who a peer is, as the bus vouches for it. Since 0.1.
struct SPeerCredentials
{
    std::uint32_t uid = 0; ///< user
    std::uint32_t gid = 0; ///< primary group
    std::int32_t pid = 0;  ///< process; it may have ended since
};

/// The transport under a host or a client: sends calls and callbacks to peers and hands what
/// arrives to two listeners.
///
/// A peer is named by its connection id: 0, 1, 2, ... in the order the port met them, never reused,
/// meaningful only to the port that gave it.
///
/// Threads: the virtual functions may be called from any thread. Listeners run on the receiver
/// thread, one message at a time, and nothing else is received meanwhile: hand long work on.
///
/// Ownership: the port owns its listeners; whoever uses the port must be destroyed before it. Since 0.1.
class NELO_RPC_API CRpcPort
{
public:
    /// Sends the result of a call back to its caller. The first call answers; later ones do nothing. Not to be called
    /// after the port is destroyed.
    using ReplyFunction = std::function<void(types::CValueList const& result)>;

    /// Receives every function call, with the id of the peer that made it.
    using FunctionCallListener =
        std::function<void(types::CValueList const& call, int connectionId, ReplyFunction reply)>;

    /// Receives every callback.
    using CallbackListener = std::function<void(types::CValueList const& callback)>;

    CRpcPort() = default;
    CRpcPort(CRpcPort const&) = delete;
    CRpcPort& operator=(CRpcPort const&) = delete;
    virtual ~CRpcPort();

    /// Sends a call and blocks until its result arrives, the bus fails or the time-out passes.
    ///
    /// @param call  arguments at 0, 1, ...; the target's reserved keys at the negative indices.
    /// @return the result at index 0, or an empty list when no reply came (the cause is logged).
    ///         A function that returns an empty list looks the same to the caller.
    virtual types::CValueList CallFunction(types::CValueList const& call, int connectionId) = 0;

    /// Sends a callback to one peer without waiting for it to arrive.
    ///
    /// @return whether it was queued for sending; false when the peer is not there or the list cannot be sent.
    virtual bool SendCallback(types::CValueList const& callback, int connectionId) = 0;

    /// Whether the peer is there now. May ask the bus, and then blocks for a round trip.
    virtual bool IsConnected(int connectionId) const = 0;

    /// Limits the wait of later calls, in milliseconds; -1 restores the bus library's default.
    virtual void SetTimeoutMs(int timeoutMs) = 0;

    /// Replaces the listener for received calls; an empty function removes it.
    ///
    /// Returns when the old listener is not running on another thread, so it must not be called with a lock
    /// held that the listener takes. Install it before the first message can arrive: until then calls are
    /// dropped with an error line.
    void SetFunctionCallListener(FunctionCallListener listener);

    /// The same for received callbacks.
    void SetCallbackListener(CallbackListener listener);

    /// For implementations, on the receiver thread: hands a received call to the listener.
    /// Without one, logs an error and returns; `reply` is then never called.
    void OnFunctionCall(types::CValueList const& call, int connectionId, ReplyFunction reply);

    /// For implementations, on the receiver thread: hands a received callback to the listener.
    /// Without one, logs an error and returns.
    void OnCallback(types::CValueList& callback);

    /// Who the peer is, or nothing if that cannot be told (it is gone, the id is unknown, the port cannot know).
    /// Asked of the bus once for each peer, and then blocks for a round trip.
    virtual std::optional<SPeerCredentials> GetPeerCredentials(int connectionId);

    /// The name under which a peer is sent to; empty for an unknown id.
    virtual std::string GetPeerName(int connectionId) const;

    /// Calls `onGone` with the connection id of every known peer that leaves, once each, on the receiver thread, from
    /// now until an empty function is set, which returns when the old one is not running on another thread.
    ///
    /// @return whether the port can tell.
    virtual bool WatchPeers(std::function<void(int connectionId)> onGone);

    /// Completes a call that CallFunctionAsync() has started. Called once.
    using CallDone = std::function<void(CCallResult result)>;

    /// As CallFunction(), but says how the call ended, and takes options. A value of a class that cannot be sent is
    /// a BadValue here. Any thread. Since 0.1.
    CCallResult TryCallFunction(types::CValueList const& call, int connectionId, CCallOptions const& options = {});

    /// Starts a call and returns without waiting for its end, of which `done` hears: once, whatever happens. Any
    /// thread. Since 0.1.
    ///
    /// `done` runs on the thread that runs the listener for callbacks, after the callbacks that the server sent before
    /// the result, and nothing else is delivered meanwhile. It may use the port, but not destroy it. If nothing reads
    /// the port, and with a port that does not say otherwise, the call is made and completed before this returns, and
    /// `done` runs on the calling thread. An exception that leaves it ends the process.
    ///
    /// The calls that are open are completed as Disconnected when the port is destroyed, and when the CCallbackDelivery
    /// is that reads it.
    ///
    /// @param done  may be empty.
    void CallFunctionAsync(types::CValueList const& call, int connectionId, CCallOptions const& options, CallDone done);

protected:
    /// Whether a listener for calls is installed. Any thread.
    bool HasFunctionCallListener() const;

    /// For implementations: makes a call and waits for its end. By default CallFunction() does, with the port's
    /// time-out whatever the options say, and without a result the call counts as Disconnected: CallFunction() does not
    /// tell why. Since 0.1.
    virtual CCallResult RunCall(types::CValueList const& call, int connectionId, CCallOptions const& options);

    /// For implementations: starts a call, and sees to it that `done`, which is not empty, is called once. By default
    /// RunCall() is waited for and `done` runs on the calling thread. Since 0.1.
    virtual void StartCall(types::CValueList const& call, int connectionId, CCallOptions const& options, CallDone done);

private:
    internal_guarded::CGuardedFunction<types::CValueList const&> m_callbackListener;
    internal_guarded::CGuardedFunction<types::CValueList const&, int, ReplyFunction> m_functionCallListener;
};

} // namespace nelo_rpc
