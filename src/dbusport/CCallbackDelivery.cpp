#include <nelo_rpc/CCallbackDelivery.h>

#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/dbusport/CDbusPort.h>

#include "../SystemLog.h"
#include "CDbusPortIo.h"

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <thread>
#include <utility>

namespace nelo_rpc
{

/// Two threads: one reads the connection, completes calls and never runs application code; the other runs handlers,
/// which may make calls that the first completes.
class CCallbackDelivery::CImpl
{
public:
    explicit CImpl(CDbusPort& port) : m_port(port), m_io(*port.m_io), m_active(port.StartReading(EReader::Thread))
    {
        if (m_active)
        {
            m_io.delivering = true;
            m_readerThread = std::thread(&CImpl::Read, this);
            m_handlerThread = std::thread(&CImpl::RunHandlers, this);
        }
    }

    ~CImpl()
    {
        if (!m_active)
        {
            return;
        }
        if (m_handlerThread.get_id() == std::this_thread::get_id())
        {
            logFatal() << "CCallbackDelivery::~CCallbackDelivery called by a handler that it runs";
            std::abort();
        }
        {
            std::lock_guard<std::mutex> const lock(m_io.mutex);
            m_io.delivering = false;
            m_io.changed.notify_all();
        }
        m_io.KickOut();
        m_readerThread.join();
        m_handlerThread.join();
        m_port.EndAsyncCalls("the delivery of callbacks has ended");
    }

private:
    using EReader = CDbusPort::EReader;

    void Read()
    {
        {
            CDbusPort::CIo::CInside const inside(m_io);
            while (m_io.delivering && dbus_connection_read_write_dispatch(m_port.m_connection, 0))
            {
                if (dbus_connection_get_dispatch_status(m_port.m_connection) == DBUS_DISPATCH_COMPLETE)
                {
                    m_io.Wait(m_port.m_connection, -1);
                    ReadUnlessEnded();
                }
            }
        }
        m_port.StopReading(); // callers that wait for this thread go on by themselves
    }

    /// When the delivery ends, a caller may be reading its reply, and would never hear of what is read here.
    void ReadUnlessEnded()
    {
        if (m_io.delivering)
        {
            m_io.Read(m_port.m_connection);
        }
    }

    void RunHandlers()
    {
        std::deque<CDbusPort::CIo::SDelivery> deliveries;
        while (m_io.delivering)
        {
            if (deliveries.empty())
            {
                deliveries = TakeDeliveries();
                continue;
            }
            CDbusPort::CIo::SDelivery delivery = std::move(deliveries.front());
            deliveries.pop_front();
            if (delivery.ended != nullptr)
            {
                m_io.Complete(*delivery.ended);
            }
            else
            {
                m_port.OnCallback(delivery.callback);
            }
        }
        LeaveEnds(std::move(deliveries));
    }

    /// Waits for some.
    std::deque<CDbusPort::CIo::SDelivery> TakeDeliveries()
    {
        std::unique_lock<std::mutex> lock(m_io.mutex);
        m_io.changed.wait(lock, [this] { return !m_io.deliveries.empty() || !m_io.delivering; });
        return std::exchange(m_io.deliveries, {});
    }

    /// The rest is for whoever ends the delivery.
    void LeaveEnds(std::deque<CDbusPort::CIo::SDelivery> deliveries)
    {
        std::lock_guard<std::mutex> const lock(m_io.mutex);
        std::move(deliveries.rbegin(), deliveries.rend(), std::front_inserter(m_io.deliveries));
    }

    CDbusPort& m_port;
    CDbusPort::CIo& m_io;
    bool const m_active;
    std::thread m_readerThread;
    std::thread m_handlerThread;
};

CCallbackDelivery::CCallbackDelivery(CDbusPort& port)
{
    CCancellationGuard const guard;
    m_impl = std::make_unique<CImpl>(port);
}

CCallbackDelivery::~CCallbackDelivery()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    m_impl.reset();
}

} // namespace nelo_rpc
