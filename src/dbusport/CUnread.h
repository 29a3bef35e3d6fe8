#pragma once

#include <nelo_rpc/CValueList.h>

#include <cstddef>
#include <map>
#include <mutex>
#include <string>

namespace nelo_rpc
{

/// How much of what was sent to each peer waits in the bus, as far as answered pings tell.
///
/// The bus stops reading from whoever has too much waiting there, whoever does not read it. So all peers share one
/// limit: each may have a quarter of what the others leave of it. However many of them read nothing, something is left
/// for those that do. A value that is larger than a quarter still reaches a peer that has read what came before.
class CUnread
{
public:
    /// @param limit  bytes, of all peers; 0: no limit, and nothing is counted.
    explicit CUnread(std::size_t limit);

    bool IsLimited() const { return m_limit != 0; }

    /// Whether a peer may be sent so many bytes more.
    bool MayAdd(std::string const& name, std::size_t size) const;

    /// @return whether the peer is to be pinged: its answer tells that it has read all that was added before.
    bool Add(std::string const& name, std::size_t size);

    /// Whether a peer that may not be sent more is to be pinged: the last ping was lost, or too many others were open
    /// when it was due, and nothing that is sent leads to another one.
    bool Retry(std::string const& name);

    /// What has become of a ping.
    enum class EPing
    {
        Answered,
        Lost // of no use; the next message leads to another one
    };

    /// @return as Add().
    bool EndPing(std::string const& name, EPing ping);

    void Forget(std::string const& name);

    /// About how many bytes a message with a list takes; 0 if nothing is counted.
    std::size_t SizeOf(types::CValueList const& list) const;

private:
    struct SPeer
    {
        std::size_t unread = 0;
        std::size_t pinged = 0; // how much of it was sent before the ping that is open; 0: none is
    };

    static std::size_t CountedOf(SPeer const& peer);
    bool StartPing(SPeer& peer);

    std::size_t const m_limit;
    mutable std::mutex m_mutex;

    // Guarded by the mutex.
    std::map<std::string, SPeer> m_peers;
    std::size_t m_total = 0; // of those that have enough waiting to be pinged: what is less is often read already
    int m_openPings = 0;
};

} // namespace nelo_rpc
