#pragma once

#include <nelo_rpc/CRpcPort.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Export.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

struct DBusConnection;
struct DBusMessage;

namespace nelo_rpc
{

/// What an application may choose for a port. Since 0.1.
struct NELO_RPC_API SPortOptions
{
    /// An asynchronous port dispatches nothing before its function-call listener is first installed: a client that
    /// waits for the name and calls at once gets its answer, however long the server takes to make its host.
    bool waitForListener = false;

    /// What a new application should use: waitForListener.
    static SPortOptions Recommended();
};

/// A port on a private connection to the D-Bus system bus.
///
/// Asynchronous, for a server: it owns a bus name, receives calls and callbacks on a thread of its own, and sends
/// results and callbacks. Synchronous, for a client: it makes calls, one at a time, and receives callbacks only while
/// a CCallbackDelivery or DispatchCallbacks() delivers them. An operation of the other mode stops the process.
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

    /// Asks the bus and blocks for the answer. An id that was never handed out is not connected.
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

private:
    friend class CCallbackDelivery;

    /// How the outside world is waited for and callbacks leave a synchronous port.
    class CIo;

    /// Who reads a synchronous port's connection while no call does.
    enum class EReader
    {
        Nobody,
        Loop,  // the application, through DispatchCallbacks()
        Thread // a CCallbackDelivery
    };

    CDbusPort(char const* name, SPortOptions const& options);

    void Open(bool bUseAsync);
    bool RequestName();
    void StartReceiver();
    void Receive();
    void HoldFirstDispatchBack();
    void HandleCallback(types::CValueList& list);
    void HandleFunctionCall(types::CValueList const& list, int connectionId, DBusMessage* message);
    bool GetOrAddConnection(std::string const& sender, int& connectionId);
    std::string GetOrInsertName(int connectionId);
    std::string WhyNotCallable(std::string const& destination, int timeoutMs, types::CValueList const& call) const;
    DBusMessage* SendAndWait(DBusMessage* message, int timeoutMs, std::string& failure) const;
    bool HasOwner(std::string const& name) const;
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
};

} // namespace nelo_rpc
