#include <nelo_rpc/CCallbackSender.h>

#include <nelo_rpc/CActor.h>

#include "SystemLog.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace nelo_rpc
{

namespace internal_callbacksender
{

int ActorGetId(CActor* actor)
{
    return actor->GetId();
}

void ActorSendCallback(CActor* actor, std::string const& name, types::CValueList& list)
{
    actor->SendCallback(name, list);
}

struct CSender::SState
{
    std::mutex mutex;
    std::condition_variable sent;
    std::map<CActor*, std::string> actors;
    std::vector<std::pair<CActor*, std::thread::id>> sending; // an actor in here is not deleted

    /// Enters a send through the actor, unless it was removed meanwhile.
    bool Begin(CActor* actor)
    {
        std::lock_guard<std::mutex> const lock(mutex);
        if (actors.count(actor) == 0)
        {
            return false;
        }
        sending.emplace_back(actor, std::this_thread::get_id());
        return true;
    }

    void End(CActor* actor)
    {
        std::lock_guard<std::mutex> const lock(mutex);
        sending.erase(std::find(sending.begin(), sending.end(), std::make_pair(actor, std::this_thread::get_id())));
        sent.notify_all();
    }

    bool IsSentByOthers(CActor* actor) const
    {
        auto const self = std::this_thread::get_id();
        return std::any_of(sending.begin(), sending.end(),
                           [&](auto const& send) { return send.first == actor && send.second != self; });
    }
};

CSender::CSender()
{
    CCancellationGuard const guard;
    m_state = std::make_shared<SState>();
}

CSender::~CSender()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    logDebug() << "CCallbackSender::~CCallbackSender for " << this;
}

void CSender::AddActor(CActor* actor, std::string const& name)
{
    CCancellationGuard const guard;
    logDebug() << "CCallbackSender(" << this << ")::AddActor " << ActorGetId(actor);
    std::lock_guard<std::mutex> const lock(m_state->mutex);
    m_state->actors[actor] = name;
}

void CSender::RemoveActor(CActor* actor)
{
    CCancellationGuard const guard;
    logDebug() << "CCallbackSender(" << this << ")::RemoveActor " << ActorGetId(actor);
    auto const state = m_state; // the sender may be destroyed by a send that is waited for
    std::unique_lock<std::mutex> lock(state->mutex);
    state->actors.erase(actor);
    state->sent.wait(lock, [&] { return !state->IsSentByOthers(actor); });
}

void CSender::SendList(types::CValueList const& payload)
{
    CCancellationGuard const guard;
    auto const state = m_state; // what a send leads to may destroy this object
    std::map<CActor*, std::string> snapshot;
    {
        std::lock_guard<std::mutex> const lock(state->mutex);
        snapshot = state->actors;
    }
    for (auto const& [actor, name] : snapshot)
    {
        if (!state->Begin(actor))
        {
            continue;
        }
        struct SEnd
        {
            SState& state;
            CActor* actor;
            ~SEnd() { state.End(actor); }
        } const end{*state, actor};
        logDebug() << "CCallbackSender::Send to actor = " << ActorGetId(actor);
        types::CValueList list = payload;
        ActorSendCallback(actor, name, list);
    }
}

} // namespace internal_callbacksender

void CCallbackSender<>::Send()
{
    SendList(types::CValueList());
}

void CCallbackSender<>::Send(types::CValueList const& payload)
{
    SendList(payload);
}

} // namespace nelo_rpc
