#pragma once

#include <nelo_rpc/CRpcPort.h>
#include <nelo_rpc/Protocol.h>
#include <nelo_rpc/Values.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// A port without a bus: it keeps what the library sends through it, answers as the test tells it to, and lets the
/// test play the peer.
///
/// What the test scripts runs on the thread that uses the port, with no lock of the port held, so it may block, send
/// and inject. All functions may be called from any thread.
class CFakePort : public nelo_rpc::CRpcPort
{
public:
    using CValueList = nelo_rpc::types::CValueList;

    struct SMessage
    {
        CValueList list;
        int connectionId;
    };

    /// The answer to one injected call, as the peer that made it sees it.
    class CReply
    {
    public:
        /// The first answer, or nothing when none came within the limit.
        std::optional<CValueList> Wait(std::chrono::milliseconds limit = std::chrono::seconds(20)) const
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_came.wait_for(lock, limit, [&] { return !m_answers.empty(); });
            return m_answers.empty() ? std::nullopt : std::make_optional(m_answers.front());
        }

        /// How often the reply function was called.
        int Count() const
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            return static_cast<int>(m_answers.size());
        }

    private:
        friend class CFakePort;

        void Add(CValueList const& answer)
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_answers.push_back(answer);
            m_came.notify_all();
        }

        mutable std::mutex m_mutex;
        mutable std::condition_variable m_came;
        std::vector<CValueList> m_answers;
    };

    // What the library calls.

    CValueList CallFunction(CValueList const& call, int connectionId) override
    {
        std::function<CValueList(CValueList const&, int)> script;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_calls.push_back({call, connectionId});
            if (!m_answers.empty())
            {
                CValueList answer = m_answers.front();
                m_answers.pop_front();
                return answer;
            }
            script = m_callScript;
        }
        return script ? script(call, connectionId) : CValueList();
    }

    bool SendCallback(CValueList const& callback, int connectionId) override
    {
        std::function<bool(CValueList const&, int)> script;
        bool result = true;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_callbacks.push_back({callback, connectionId});
            m_events->Add("callback " + nelo_rpc::types::toString(callback));
            m_sent.notify_all();
            script = m_sendScript;
            result = m_sendResult;
        }
        return script ? script(callback, connectionId) : result;
    }

    bool IsConnected(int connectionId) const override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connectedQueries.push_back(connectionId);
        return m_connected;
    }

    void SetTimeoutMs(int timeoutMs) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_timeoutsMs.push_back(timeoutMs);
    }

    std::optional<nelo_rpc::SPeerCredentials> GetPeerCredentials(int connectionId) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_credentialQueries.push_back(connectionId);
        auto const peer = m_credentials.find(connectionId);
        return peer == m_credentials.end() ? std::nullopt : std::make_optional(peer->second);
    }

    std::string GetPeerName(int connectionId) const override { return ":fake." + std::to_string(connectionId); }

    bool WatchPeers(std::function<void(int connectionId)> onGone) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_onGone = std::move(onGone);
        return m_canWatch;
    }

    // What the test says beforehand.

    /// Who a peer is; nobody until told otherwise.
    void SetCredentials(int connectionId, nelo_rpc::SPeerCredentials const& credentials)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_credentials[connectionId] = credentials;
    }

    /// Whether the port can tell who leaves: true until told otherwise.
    void SetCanWatch(bool canWatch)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_canWatch = canWatch;
    }

    /// The next call without an answer of its own gets this one; several are used up in order.
    void AnswerNext(CValueList answer)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_answers.push_back(std::move(answer));
    }

    /// Answers calls; an empty function puts the empty answer back.
    void OnCallFunction(std::function<CValueList(CValueList const&, int)> script)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_callScript = std::move(script);
    }

    /// Decides what a callback's send returns; an empty function puts SetSendResult() back.
    void OnSendCallback(std::function<bool(CValueList const&, int)> script)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sendScript = std::move(script);
    }

    /// What the send of a callback returns: true until told otherwise.
    void SetSendResult(bool result)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sendResult = result;
    }

    void SetConnected(bool connected)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connected = connected;
    }

    // What came.

    std::vector<SMessage> Calls() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

    std::vector<SMessage> Callbacks() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_callbacks;
    }

    /// Waits until that many callbacks were sent since the port was made.
    bool WaitForCallbacks(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10))
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_sent.wait_for(lock, limit, [&] { return m_callbacks.size() >= count; });
    }

    std::vector<int> ConnectedQueries() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_connectedQueries;
    }

    std::vector<int> TimeoutsMs() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_timeoutsMs;
    }

    std::vector<int> CredentialQueries() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_credentialQueries;
    }

    /// Whether somebody watches the peers.
    bool IsWatched() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<bool>(m_onGone);
    }

    /// Adds an event of the test's own to the order of events.
    void Record(std::string const& event) { m_events->Add(event); }

    /// Replies ("reply " + list), callbacks sent ("callback " + list) and recorded events, in the order they happened.
    std::vector<std::string> Events() const { return m_events->All(); }

    // The test as the peer.

    /// Hands a call to the function-call listener, on the calling thread as a receiver thread would.
    std::shared_ptr<CReply> Call(CValueList const& call, int connectionId)
    {
        auto reply = std::make_shared<CReply>();
        OnFunctionCall(call, connectionId, [reply, events = m_events](CValueList const& answer) {
            events->Add("reply " + nelo_rpc::types::toString(answer));
            reply->Add(answer);
        });
        return reply;
    }

    /// Hands a callback to the callback listener, on the calling thread.
    void Callback(CValueList callback) { OnCallback(callback); }

    /// A peer leaves: tells who watches, on the calling thread as a receiver thread would.
    void Leave(int connectionId)
    {
        std::function<void(int)> onGone;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            onGone = m_onGone;
        }
        if (onGone)
        {
            onGone(connectionId);
        }
    }

private:
    class CEvents
    {
    public:
        void Add(std::string const& event)
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_events.push_back(event);
        }

        std::vector<std::string> All() const
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            return m_events;
        }

    private:
        mutable std::mutex m_mutex;
        std::vector<std::string> m_events;
    };

    mutable std::mutex m_mutex;
    std::condition_variable m_sent;
    std::vector<SMessage> m_calls;
    std::vector<SMessage> m_callbacks;
    mutable std::vector<int> m_connectedQueries;
    std::vector<int> m_timeoutsMs;
    std::deque<CValueList> m_answers;
    std::function<CValueList(CValueList const&, int)> m_callScript;
    std::function<bool(CValueList const&, int)> m_sendScript;
    bool m_sendResult = true;
    bool m_connected = true;
    std::map<int, nelo_rpc::SPeerCredentials> m_credentials;
    std::vector<int> m_credentialQueries;
    std::function<void(int)> m_onGone;
    bool m_canWatch = true;
    std::shared_ptr<CEvents> m_events = std::make_shared<CEvents>(); // replies may outlive the port
};

/// A list with the values at 0, 1, ...
template <class... Args>
nelo_rpc::types::CValueList listOf(Args const&... args)
{
    nelo_rpc::types::CValueList list;
    int index = 0;
    ((list[index++] = nelo_rpc::types::packValue(args)), ...);
    return list;
}

/// A call as a client's library puts it on the port.
template <class... Args>
nelo_rpc::types::CValueList callOf(int actorId, std::string const& typeName, std::string const& function,
                                   Args const&... args)
{
    nelo_rpc::types::CValueList list = listOf(args...);
    list[nelo_rpc::protocol::TYPE_NAME] = nelo_rpc::types::makeValue<std::string>(typeName);
    list[nelo_rpc::protocol::ACTOR_ID] = nelo_rpc::types::makeValue<int>(actorId);
    list[nelo_rpc::protocol::METHOD_NAME] = nelo_rpc::types::makeValue<std::string>(function);
    return list;
}

/// A callback as a server's library puts it on the port.
template <class... Args>
nelo_rpc::types::CValueList callbackOf(int actorId, std::string const& name, Args const&... args)
{
    nelo_rpc::types::CValueList list = listOf(args...);
    list[nelo_rpc::protocol::ACTOR_ID] = nelo_rpc::types::makeValue<int>(actorId);
    list[nelo_rpc::protocol::METHOD_NAME] = nelo_rpc::types::makeValue<std::string>(name);
    return list;
}
