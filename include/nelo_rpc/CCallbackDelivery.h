#pragma once

#include <nelo_rpc/Export.h>

#include <memory>

namespace nelo_rpc
{

class CDbusPort;

/// Delivers the callbacks of a synchronous port for as long as it lives.
///
/// Handlers run one at a time, in the order in which the server sent the callbacks, on a thread of this object, also
/// while other threads are inside calls. They may make calls themselves; what arrives meanwhile is kept, however much
/// it is. One per port; not together with CDbusPort::DispatchCallbacks(). Since 0.1.
class NELO_RPC_API CCallbackDelivery
{
public:
    /// Starts to deliver. The port must outlive the object and be synchronous, else the process is stopped.
    explicit CCallbackDelivery(CDbusPort& port);
    CCallbackDelivery(CCallbackDelivery const&) = delete;
    CCallbackDelivery& operator=(CCallbackDelivery const&) = delete;

    /// Waits for the handler that is running; callbacks that are still queued are dropped. Not for a handler's own
    /// use: that stops the process.
    ~CCallbackDelivery();

private:
    class CImpl;

    std::unique_ptr<CImpl> m_impl;
};

} // namespace nelo_rpc
