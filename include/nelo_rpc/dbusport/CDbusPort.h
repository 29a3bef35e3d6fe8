#pragma once

#include <nelo_rpc/CRpcPort.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Choices.h>
#include <nelo_rpc/Export.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

struct DBusConnection;
struct DBusMessage;

namespace nelo_rpc
{

namespace dbus
{
struct SCallFailure;
}

/// What an application may choose for a port. Since 0.1.
struct NELO_RPC_API SPortOptions
{
    /// An asynchronous port dispatches nothing before its function-call listener is first installed: a client that
    /// waits for the name and calls at once gets its answer, however long the server takes to make its host.
    bool waitForListener = false;

    /// Untrusted: no ill-formed message ends the process. Each message is checked before anything is done about it: a
    /// call that does not keep to the protocol is refused with an error reply and an error line, a signal is dropped
    /// with an error line, and an ill-formed reply is no reply. Whoever makes such a call gets no connection id for it.
    /// A well-formed call for an unknown type, or with other arguments than a function takes, is the host's affair: see
    /// SHostOptions::peers.
    EPeers peers = EPeers::Trusted;

    /// How many bytes may wait to be sent before SendCallback fails, with an error line: the bus does not take them.
    /// The limit counts what all peers of the port have coming. 0: no limit.
    std::size_t maxPendingBytes = 0;

    /// An asynchronous port asks the bus once whether a peer is there and then relies on its news of those that leave,
    /// instead of asking before each callback, which is most of what a callback costs. A callback that is sent between
    /// a peer's end and the news of it counts as sent. About peers known by a well-known name the bus is asked each
    /// time, and also while more than 64 KiB wait to be sent, so that a sender is no quicker than the bus.
    bool rememberPeers = false;

    /// How many bytes an asynchronous port may have sent that its peers have not read. The bus keeps those, and stops
    /// reading from a port that has too many there (127 MiB on a stock system bus): then nobody is answered any more.
    /// Each peer may have a quarter of what the others leave of the limit, and at least 64 KiB; one that has less than
    /// that unread may be sent a value of any size that the limit has room for. Beyond it callbacks to that peer fail,
    /// with an error line. Results may take half of what is left; beyond that they become error replies. 0: no limit.
    ///
    /// What has been read is known from pings, one for each 64 KiB, which D-Bus libraries answer by themselves. The policy
    /// of the bus must let the port send them; otherwise nothing is limited, and an error line says so.
    std::size_t maxUnreadBytes = 0;

    /// What a new application should use: waitForListener, untrusted peers, at most 32 MiB waiting, rememberPeers, at most
    /// 96 MiB unread.
    static SPortOptions Recommended();
};

/// A port on a private connection to the D-Bus system bus.
///
/// Asynchronous, for a server: it owns a bus name, receives calls and callbacks on a thread of its own, and sends
/// results and callbacks. Synchronous, for a client: it makes calls, of those that are waited for one at a time, and
/// receives callbacks only while a CCallbackDelivery or DispatchCallbacks() delivers them. An operation of the other mode stops the process.
///
/// A port whose connection failed or was lost lives on without one: calls give an empty list, the rest false.
/// Since 0.1.
class NELO_RPC_API CDbusPort : public CRpcPort
{
public:
    /// Connects; blocks for the bus. Failures are logged.
    ///
    /// @param name       the port's own bus name; requested from the bus only if asynchronous.
    /// @param bUseAsync  the mode.
    CDbusPort(char const* name, bool bUseAsync, SPortOptions const& options = {});

    /// The same, with `defaultName` (usually a server's bus name) as the peer with connection id 0.
    CDbusPort(char const* name, char const* defaultName, bool bUseAsync, SPortOptions const& options = {});

    /// The mode is never left out.
    CDbusPort(char const* name, char const* defaultName) = delete;

    /// Closes the connection and joins the receiver thread, which takes up to 200 ms.
    ~CDbusPort() override;

    /// Synchronous ports only; see CRpcPort. Calls of several threads are served one after the other.
    types::CValueList CallFunction(types::CValueList const& call, int connectionId) override;

    /// Asynchronous ports only; see CRpcPort.
    bool SendCallback(types::CValueList const& callback, int connectionId) override;

    /// Asks the bus and blocks for the answer, unless SPortOptions::rememberPeers spares it. An id that was never
    /// handed out is not connected.
    bool IsConnected(int connectionId) const override;

    /// Any value is kept as it is; calls with less than -1 fail as if no reply came.
    void SetTimeoutMs(int timeoutMs) override;

    /// Gives a peer a new connection id, also if it has one already.
    int AddConnection(std::string const& name);

    /// Gives the first peer the id 0; later than that it stops the process.
    void AddDefaultConnection(std::string const& name);

    /// Sends the result of a received call; reply functions do so. Asynchronous ports only.
    ///
    /// @return whether the result was queued. One that cannot be sent is answered with an error instead.
    bool SendFunctionResult(DBusMessage* call, types::CValueList const& list);

    /// The message filter, called by the bus library on the receiver thread.
    /// @return a DBusHandlerResult; an int here, so that applications need no header of the bus library.
    int OnDbusMessage(DBusConnection* connection, DBusMessage* message);

    /// For an application's own loop: a descriptor that is readable when DispatchCallbacks() has something to do.
    /// From the first call on, callbacks are kept for DispatchCallbacks(); that one waits for a call that is under way
    /// on another thread. Synchronous ports only; -1 without a connection. Owned by the port.
    int GetPollFd();

    /// Runs the handlers of the callbacks that have arrived, on the calling thread, and returns without waiting for
    /// more. One thread at a time; not from a handler. Synchronous ports only.
    void DispatchCallbacks();

    /// See CRpcPort. `gid` is the process's group, if the bus says that the peer belongs to it; else the lowest of the
    /// groups that the bus names, or the highest possible number if it names none.
    ///
    /// The answer about a peer with a unique name is kept, also after it has gone. A well-known name is asked about
    /// each time, as its owner may change. On a synchronous port a call that is under way is waited for.
    std::optional<SPeerCredentials> GetPeerCredentials(int connectionId) override;

    /// See CRpcPort.
    std::string GetPeerName(int connectionId) const override;

    /// See CRpcPort; about peers known by their unique name. Does not wait for the bus: should that refuse, an error
    /// line says so. When the bus itself is lost no peer is reported: see SetLostListener().
    ///
    /// @return false on a synchronous port, and without a connection.
    bool WatchPeers(std::function<void(int connectionId)> onGone) override;

    /// Whether the port has its connection to the bus, and its name, or a place in the queue for it, if it asked for one.
    /// Does not ask the bus: a loss shows when the port next reads, which without a receiver, a delivery or a loop is in the next call. Any thread.
    /// Since 0.1.
    bool IsOpen() const;

    /// Installs what is called, once, when the connection to the bus is lost; not when the port itself closes it or
    /// never had it. An empty function removes it. Since 0.1.
    ///
    /// It runs on the thread that notices: the receiver, a delivery's reader, or whoever dispatches or calls. If the
    /// connection was lost before, it runs at once on the calling thread. It may use the port, whose operations fail,
    /// but not destroy it. Replacing it returns when the old one is not running on another thread.
    void SetLostListener(std::function<void()> listener);

protected:
    /// See CRpcPort::TryCallFunction(). Synchronous ports only. The time-out counts the wait for calls of other threads
    /// too. Since 0.1.
    CCallResult RunCall(types::CValueList const& call, int connectionId, CCallOptions const& options) override;

    /// See CRpcPort::CallFunctionAsync(). Synchronous ports only. 100 calls are under way at a time, the others wait behind
    /// them. `done` runs on the delivery's thread for handlers, or in DispatchCallbacks(); when the delivery ends, on the
    /// thread that ends it, as for a port that is destroyed. Time-outs of a loop end only in DispatchCallbacks(), for
    /// which the descriptor is readable then. Since 0.1.
    void StartCall(types::CValueList const& call, int connectionId, CCallOptions const& options,
                   CallDone done) override;

private:
    friend class CCallbackDelivery;

    /// How the outside world is waited for and callbacks leave a synchronous port.
    class CIo;

    /// What is known of the peers beside their names, and of the connection's end.
    class CWatch;

    /// Who reads the connection while no call does.
    enum class EReader
    {
        Nobody,
        Loop,    // the application, through DispatchCallbacks()
        Thread,  // a CCallbackDelivery
        Receiver // an asynchronous port's own thread
    };

    CDbusPort(char const* name, SPortOptions const& options);

    void Open(bool bUseAsync);
    bool RequestName();
    void StartReceiver();
    void Receive();
    void HoldFirstDispatchBack();
    int HandleOtherPath(DBusMessage* message, std::string const& sender, std::string const& path);
    bool HandleIntrospection(DBusMessage* message, std::string const& path);
    bool IsRefused(DBusMessage* message, std::string const& sender, types::CValueList& list);
    void AnswerWithError(DBusMessage* call, char const* error, std::string const& cause);
    void SendFromFilter(DBusMessage* message);
    void HandleCallback(types::CValueList& list);
    void HandleFunctionCall(types::CValueList const& list, int connectionId, DBusMessage* message);
    int StoreConnection(std::string const& name);
    bool GetOrAddConnection(std::string const& sender, int& connectionId);
    std::string GetOrInsertName(int connectionId);
    dbus::SCallFailure FindObstacle(std::string const& destination, int timeoutMs, types::CValueList const& call,
                                    bool looksForTags) const;
    CCallResult Call(types::CValueList const& call, int connectionId, CCallOptions const* options);
    DBusMessage* SendAndWait(DBusMessage* message, int timeoutMs, dbus::SCallFailure& failure,
                             std::unique_lock<std::recursive_mutex>& sendLock) const;
    void EndAsyncCalls(char const* reason);
    void RunDeliveries();
    DBusMessage* AskBus(char const* question, std::string const& name, bool& lost) const;
    bool HasOwner(std::string const& name, bool& lost) const;
    bool IsThere(std::string const& name, bool& lost) const;
    bool MayRemember(std::string const& name) const;
    bool HasTooMuchToSend() const;
    bool HasTooMuchUnread(std::string const& destination, std::size_t size, bool isResult);
    bool SendCounted(DBusMessage* message, std::string const& destination, std::size_t size);
    void Ping(std::string const& name);
    void HandlePong(std::string const& name, DBusMessage* answer);
    void DropUndelivered() const;
    bool Send(DBusMessage* message);
    void RequireSynchronous() const;
    void RequireAsynchronous() const;
    void RequireOutside(char const* operation) const;
    bool DispatchSome();
    bool IsReadBy(EReader reader) const;
    bool StartReading(EReader reader);
    void StopReading();
    void Filter();
    void Unfilter();
    bool MatchNamesThatGo();
    void HandleMatch(DBusMessage* answer);
    void AskForNames();
    bool HandleNews(DBusMessage* message, std::string const& sender);
    void HandleGoneName(std::string const& name);
    void HandleNames(DBusMessage* names);
    bool IsLost() const;

    DBusConnection* m_connection;
    std::string m_name;
    bool m_bUseAsync;
    std::atomic<int> m_timeoutMs;
    int m_lastConnectionId;
    std::map<int, std::string> m_connectionNames;
    std::map<std::string, int> m_connectionIds;
    mutable std::recursive_mutex m_sendMutex;
    mutable std::recursive_mutex m_connectionsMutex;
    std::thread m_reciverThread;

    SPortOptions m_options;
    std::unique_ptr<CIo> m_io;
    std::shared_ptr<CWatch> m_watch; // shared with calls in flight
};

} // namespace nelo_rpc
