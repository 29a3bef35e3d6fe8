#pragma once

#include <dbus/dbus.h>

#include <mutex>

namespace nelo_rpc
{

/// A second connection to the bus, for questions that are asked on the thread that reads the first one: it cannot wait
/// there for what only it would read. Opened by the first such question.
class CSideConnection
{
public:
    CSideConnection() = default;
    CSideConnection(CSideConnection const&) = delete;
    CSideConnection& operator=(CSideConnection const&) = delete;
    ~CSideConnection();

    /// Sends a question and blocks for its answer; null if there is none. Any thread, one at a time.
    DBusMessage* Ask(DBusMessage* question, int timeoutMs);

private:
    bool Open();

    /// Any peer may send messages here. Nobody wants them, and they would pile up.
    void DropOthers();

    void Close();

    std::mutex m_mutex;
    DBusConnection* m_connection = nullptr; // guarded by the mutex
};

} // namespace nelo_rpc
