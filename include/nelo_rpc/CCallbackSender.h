#pragma once

#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/Export.h>
#include <nelo_rpc/ICallback.h>
#include <nelo_rpc/Values.h>

#include <memory>
#include <string>

namespace nelo_rpc
{

/// How a sender reaches an actor without knowing its class.
namespace internal_callbacksender
{

NELO_RPC_API int ActorGetId(CActor* actor);
NELO_RPC_API void ActorSendCallback(CActor* actor, std::string const& name, types::CValueList& list);

/// What all senders have in common: the actors, each with the name that the callback has there.
class NELO_RPC_API CSender : public ICallback
{
public:
    CSender();
    CSender(CSender const&) = delete;
    CSender& operator=(CSender const&) = delete;
    ~CSender() override;

    void AddActor(CActor* actor, std::string const& name) override;
    void RemoveActor(CActor* actor) override;

protected:
    void SendList(types::CValueList const& payload);

private:
    struct SState;

    std::shared_ptr<SState> m_state; // shared with sends in flight, which may outlive the sender
};

} // namespace internal_callbacksender

/// A callback that an application object publishes, with the types of its payload.
///
/// The object holds the sender; the setup function of its actor type registers it with CActor::AddCallback under the
/// callback's name. Sending, registering and removing may happen on any threads at once, and the sender may be
/// destroyed by what a send leads to. Since 0.1.
template <class... Args>
class CCallbackSender : public internal_callbacksender::CSender
{
public:
    /// Sends the payload, at 0, 1, ..., through every actor that the sender is registered on.
    ///
    /// Any thread. Does not wait for the clients, only for the bus to say whether they are there. A client that is
    /// gone costs its actor, which is removed soon afterwards on the worker thread of its connection.
    void Send(Args const&... args)
    {
        CCancellationGuard const guard;
        types::CValueList payload;
        int index = 0;
        ((payload[index++] = types::packValue<Args>(args)), ...);
        SendList(payload);
    }
};

/// The sender without a payload of its own.
template <>
class NELO_RPC_API CCallbackSender<> : public internal_callbacksender::CSender
{
public:
    /// Sends an empty list.
    void Send();

    /// Sends a list that was put together by hand.
    void Send(types::CValueList const& payload);
};

} // namespace nelo_rpc
