#include "CUnread.h"

#include "WireValue.h"

#include <algorithm>

namespace nelo_rpc
{

namespace
{

/// After how many bytes a peer is pinged: a ping and its answer are small beside that.
constexpr std::size_t PING_AFTER = 64 * 1024;

/// The bus limits how many calls of one connection are open, to 128 by default.
constexpr int MAX_OPEN_PINGS = 100;

/// How often what is left of the limit is more than what one peer may have.
constexpr std::size_t SHARE = 4;

constexpr std::size_t HEADER_SIZE = 128;
constexpr std::size_t ENTRY_SIZE = 16;

} // namespace

CUnread::CUnread(std::size_t limit) : m_limit(limit) {}

bool CUnread::MayAdd(std::string const& name, std::size_t size) const
{
    if (!IsLimited())
    {
        return true;
    }
    std::lock_guard<std::mutex> const lock(m_mutex);
    auto const peer = m_peers.find(name);
    std::size_t const unread = peer == m_peers.end() ? 0 : peer->second.unread;
    std::size_t const left = m_limit - std::min(m_total, m_limit);
    if (unread < PING_AFTER && (m_total == 0 || size <= left))
    {
        return true;
    }
    return unread + size <= std::max(left / SHARE, PING_AFTER);
}

bool CUnread::Add(std::string const& name, std::size_t size)
{
    if (!IsLimited())
    {
        return false;
    }
    std::lock_guard<std::mutex> const lock(m_mutex);
    SPeer& peer = m_peers[name];
    m_total -= CountedOf(peer);
    peer.unread += size;
    m_total += CountedOf(peer);
    return StartPing(peer);
}

bool CUnread::Retry(std::string const& name)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    auto const peer = m_peers.find(name);
    return peer != m_peers.end() && StartPing(peer->second);
}

bool CUnread::EndPing(std::string const& name, EPing ping)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    --m_openPings;
    auto const entry = m_peers.find(name);
    if (entry == m_peers.end())
    {
        return false;
    }
    SPeer& peer = entry->second;
    std::size_t const pinged = peer.pinged;
    peer.pinged = 0;
    if (ping == EPing::Lost)
    {
        return false;
    }
    m_total -= CountedOf(peer);
    peer.unread -= pinged;
    m_total += CountedOf(peer);
    if (peer.unread == 0)
    {
        m_peers.erase(entry);
        return false;
    }
    return StartPing(peer);
}

void CUnread::Forget(std::string const& name)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    auto const entry = m_peers.find(name);
    if (entry != m_peers.end())
    {
        m_total -= CountedOf(entry->second);
        m_peers.erase(entry);
    }
}

std::size_t CUnread::SizeOf(types::CValueList const& list) const
{
    if (!IsLimited())
    {
        return 0;
    }
    std::size_t size = HEADER_SIZE;
    for (auto const& [index, value] : list)
    {
        size += ENTRY_SIZE + dbus::wireValueOf(*value).size;
    }
    return size;
}

std::size_t CUnread::CountedOf(SPeer const& peer)
{
    return peer.unread < PING_AFTER ? 0 : peer.unread;
}

bool CUnread::StartPing(SPeer& peer)
{
    if (peer.pinged != 0 || peer.unread < PING_AFTER || m_openPings >= MAX_OPEN_PINGS)
    {
        return false;
    }
    peer.pinged = peer.unread;
    ++m_openPings;
    return true;
}

} // namespace nelo_rpc
