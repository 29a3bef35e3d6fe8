#include <nelo_rpc/CCallbackSender.h>

#include <nelo_rpc/CActor.h>

#include "SystemLog.h"

#include <algorithm>
#include <chrono>
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

std::shared_ptr<CActor> ActorHold(CActor* actor)
{
    return actor->m_weakSelf.lock();
}

namespace
{

/// A send through an actor that is under way.
struct SSend
{
    CActor* actor;
    std::thread::id thread;
    std::shared_ptr<CActor> held;                         // null for an actor that no connection made
    std::shared_ptr<CCancellationRequest const> ofWorker; // null on other threads

    /// A thread that was cut off may take for ever, so the actor lives as long as its send.
    bool IsWaitedFor() const { return held == nullptr || ofWorker == nullptr || !ofWorker->IsCutOff(); }
};

/// How often a wait for a send looks whether the sending thread was cut off, which is told nobody.
constexpr std::chrono::milliseconds CUT_OFF_CHECK{100};

} // namespace

struct CSender::SState
{
    std::mutex mutex;
    std::condition_variable sent;
    std::map<CActor*, std::string> actors;
    std::vector<SSend> sending; // an actor in here is not deleted

    /// Enters a send through the actor, unless it was removed meanwhile.
    bool Begin(CActor* actor)
    {
        std::lock_guard<std::mutex> const lock(mutex);
        if (actors.count(actor) == 0)
        {
            return false;
        }
        sending.push_back({actor, std::this_thread::get_id(), ActorHold(actor), CCancellationRequest::Own()});
        return true;
    }

    void End(CActor* actor)
    {
        SSend ended{}; // destroyed unlocked, with the actor perhaps
        std::lock_guard<std::mutex> const lock(mutex);
        auto const self = std::this_thread::get_id();
        auto const send = std::find_if(sending.begin(), sending.end(), [&](SSend const& candidate) {
            return candidate.actor == actor && candidate.thread == self;
        });
        ended = std::move(*send);
        sending.erase(send);
        sent.notify_all();
    }

    bool IsSentByOthers(CActor* actor) const
    {
        auto const self = std::this_thread::get_id();
        return std::any_of(sending.begin(), sending.end(), [&](SSend const& send) {
            return send.actor == actor && send.thread != self && send.IsWaitedFor();
        });
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
    while (state->IsSentByOthers(actor))
    {
        state->sent.wait_for(lock, CUT_OFF_CHECK);
    }
}

void CSender::SendList(types::CValueList const& payload)
{
    CCancellationGuard const guard;
    if (CCancellationRequest::IsOwnCutOff())
    {
        logError() << "CCallbackSender::Send dropped, the sending thread was cut off";
        return;
    }
    auto const state = m_state; // what a send leads to may destroy this object
    std::map<CActor*, std::string> snapshot;
    {
        std::lock_guard<std::mutex> const lock(state->mutex);
        snapshot = state->actors;
    }
    for (auto const& [actor, name] : snapshot)
    {
        if (CCancellationRequest::IsOwnCutOff())
        {
            return;
        }
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
