#pragma once

#include <dbus/dbus.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct SUnrefMessage
{
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using MessagePointer = std::unique_ptr<DBusMessage, SUnrefMessage>;

/// The bus itself: its names, who owns them, and what passes over it. Nothing here goes to a server, except Ask().
class CBus
{
public:
    struct SProcess
    {
        unsigned long pid;
        unsigned long uid;
    };

    /// Throws CFailure if the bus cannot be reached.
    CBus();
    CBus(CBus const&) = delete;
    CBus& operator=(CBus const&) = delete;
    ~CBus();

    /// All names, unique ones included.
    std::vector<std::string> GetNames();

    /// Whether the bus would start somebody for the name.
    bool IsActivatable(std::string const& name);

    /// The unique name behind a name; empty if nobody owns it.
    std::string GetOwner(std::string const& name);

    /// The process behind a name, as the bus vouches for it.
    std::optional<SProcess> GetProcess(std::string const& name);

    /// Sends a call that starts nobody, and waits for the reply: a result, an error, or null for neither.
    MessagePointer Ask(DBusMessage& call, std::chrono::milliseconds limit);

    /// Has the bus say when the owner of a name changes.
    void WatchOwner(std::string const& name);

    /// Turns the connection into one that gets copies of what fits one of the rules, and can send nothing any more.
    /// Throws CFailure if the bus refuses.
    void BecomeMonitor(std::vector<std::string> const& rules);

    /// Readable when Next() may have something.
    int GetFd() const;

    /// The next message that has arrived, or null. Throws CFailure when the bus was lost.
    MessagePointer Next();

private:
    MessagePointer AskBus(char const* member, char const* argument = nullptr);
    std::vector<std::string> AskForNames(char const* member);

    DBusConnection* m_connection;
};

/// Whether a message says that a name has another owner now. `newOwner` is empty if it has none any more.
bool isOwnerChange(DBusMessage& message, std::string& name, std::string& oldOwner, std::string& newOwner);

/// A text that may be null, as one that may be empty.
std::string textOf(char const* text);
