#pragma once

#include <dbus/dbus.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct SUnrefMessage
{
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<DBusMessage, SUnrefMessage>;

/// What every message of the protocol carries in its header.
inline constexpr char const* WIRE_PATH = "/org/trelin/nelo_rpc";
inline constexpr char const* WIRE_INTERFACE = "org.trelin.nelo_rpc.Event";
inline constexpr char const* WIRE_MEMBER = "Call";

/// A call or a callback with an empty body. The fields may be given otherwise to make a stray message.
MessagePtr rawCall(std::string const& destination, char const* path = WIRE_PATH);
MessagePtr rawSignal(std::string const& destination, char const* path = WIRE_PATH);

/// Appends one entry (index, tag, value) to a body.
void putInt(DBusMessage* message, int index, int value);
void putString(DBusMessage* message, int index, std::string const& value);
void putCString(DBusMessage* message, int index, std::string const& value);
void putBytes(DBusMessage* message, int index, std::vector<unsigned char> const& bytes, int kind);

/// The arguments of a body in order, separated by spaces: integers in decimal, strings in quotes, byte
/// arrays in hexadecimal and brackets.
std::string describeBody(DBusMessage* message);

/// A field of a message's header, "" where it is missing.
std::string textOf(char const* field);

/// A peer on the bus that knows libdbus and nothing of this library. One thread at a time.
class CRawPeer
{
public:
    CRawPeer();
    ~CRawPeer();

    CRawPeer(CRawPeer const&) = delete;
    CRawPeer& operator=(CRawPeer const&) = delete;

    DBusConnection* GetConnection() const { return m_connection; }
    std::string GetUniqueName() const;

    /// @return the code of the bus, for instance DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER; -1 for an error.
    int RequestName(std::string const& name, unsigned int flags = 0);
    void ReleaseName(std::string const& name);

    /// The unique name of the name's owner, "" if there is none.
    std::string OwnerOf(std::string const& name);

    /// Sends and waits until the bytes have gone out. @return the message's serial.
    dbus_uint32_t Send(DBusMessage* message);

    /// Sends a call and waits for its answer, be it a return or an error.
    MessagePtr Call(DBusMessage* call, std::chrono::milliseconds limit = std::chrono::seconds(10));

    /// The next message of that type from a peer, or null after the limit; all others before it are dropped.
    MessagePtr Receive(int type, std::chrono::milliseconds limit = std::chrono::seconds(10));

private:
    MessagePtr ReceiveIf(std::function<bool(DBusMessage*)> const& wanted, std::chrono::milliseconds limit);

    DBusConnection* m_connection;
};

/// A raw peer that owns a name and answers calls on a thread of its own.
class CRawServer
{
public:
    /// Runs on the server's thread for each call; answers through the peer, or not at all.
    using Handler = std::function<void(CRawPeer& peer, MessagePtr call)>;

    /// Whether it has the name at once, or waits for it in the bus's queue.
    enum class EName
    {
        Owned,
        Queued
    };

    CRawServer(std::string const& name, Handler handler, EName howItIsHeld = EName::Owned);
    ~CRawServer();

    CRawServer(CRawServer const&) = delete;
    CRawServer& operator=(CRawServer const&) = delete;

    std::string const& GetUniqueName() const { return m_uniqueName; }

private:
    void Run(Handler const& handler);

    CRawPeer m_peer;
    std::string const m_uniqueName;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

/// Answers a call with an integer result.
void answerInt(CRawPeer& peer, DBusMessage* call, int result);
