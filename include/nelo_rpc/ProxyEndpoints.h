#pragma once

#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/Export.h>
#include <nelo_rpc/Values.h>

#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace nelo_rpc
{

class CActorProxy;

namespace types::internal_proxyfunction
{

/// Calls a function of the proxy's actor; blocks as CActorProxy::RemoteCall() does.
NELO_RPC_API CValueList ActorProxyCallFunction(CActorProxy& proxy, std::string const& name, CValueList const& args);

/// Subscribes a handler to a callback of the proxy's actor, replacing an earlier one.
NELO_RPC_API void ActorProxySubscribeCallback(CActorProxy& proxy, std::string const& name,
                                              std::function<void(CValueList const&)> handler);

} // namespace types::internal_proxyfunction

/// A proxy and a name: what every typed function and callback of a proxy is.
class NELO_RPC_API CProxyEndpoint
{
public:
    /// The proxy is not owned and must outlive the endpoint.
    CProxyEndpoint(CActorProxy& proxy, std::string name);

protected:
    ~CProxyEndpoint() = default;

    types::CValueList Call(types::CValueList const& args) const;
    void SubscribeList(std::function<void(types::CValueList const&)> handler) const;

private:
    CActorProxy& m_proxy;
    std::string m_name;
};

template <class Signature>
class CProxyFunction;

/// A typed function of a remote actor, usually a member of a class derived from CActorProxy. Since 0.1.
template <class R, class... A>
class CProxyFunction<R(A...)> : public CProxyEndpoint
{
public:
    using CProxyEndpoint::CProxyEndpoint;

    /// What TryCall() gives: functions without a result answer true.
    using Result = std::conditional_t<std::is_void_v<R>, bool, std::decay_t<R>>;

    /// Calls the function and waits for its result; defaultReturnValue<R>() when none came. Any thread.
    R operator()(std::decay_t<A> const&... args) const
    {
        std::optional<Result> result = TryCall(args...);
        if constexpr (!std::is_void_v<R>)
        {
            return result ? std::move(*result) : types::defaultReturnValue<Result>();
        }
    }

    /// The same, but says whether a result came. A result of another type is fatal ("wrong type in CValue").
    std::optional<Result> TryCall(std::decay_t<A> const&... args) const
    {
        CCancellationGuard const guard;
        types::CValueList list;
        int index = 0;
        static_cast<void>(index);
        ((list[index++] = types::packValue<std::decay_t<A>>(args)), ...);
        types::CValueList const reply = Call(list);
        if (reply.count(0) == 0)
        {
            return std::nullopt;
        }
        return types::unpackAt<Result>(reply, 0);
    }
};

/// A typed callback of a remote actor, usually a member of a class derived from CActorProxy. Since 0.1.
template <class... A>
class CProxyCallback : public CProxyEndpoint
{
public:
    using CProxyEndpoint::CProxyEndpoint;

    /// Lets `handler` be called with each payload from now on, replacing an earlier handler. The proxy keeps it.
    ///
    /// It runs on the thread that delivers the client's callbacks, one at a time in the order sent, and may call
    /// functions of proxies. A payload that is missing or ill-typed is fatal ("wrong type in CValue").
    void Subscribe(std::function<void(A const&...)> handler) const
    {
        SubscribeList([handler = std::move(handler)](types::CValueList const& payload) {
            CallHandler(handler, payload, std::index_sequence_for<A...>{});
        });
    }

private:
    template <std::size_t... I>
    static void CallHandler(std::function<void(A const&...)> const& handler, types::CValueList const& payload,
                            std::index_sequence<I...>)
    {
        std::tuple<A...> unpacked{types::unpackAt<A>(payload, static_cast<int>(I))...};
        static_cast<void>(unpacked);
        handler(std::get<I>(unpacked)...);
    }
};

} // namespace nelo_rpc
