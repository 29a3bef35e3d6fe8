#pragma once

#include <nelo_rpc/CCallOptions.h>
#include <nelo_rpc/CCallResult.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/Export.h>
#include <nelo_rpc/Values.h>

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace nelo_rpc
{

class CActorProxy;

template <class Value>
class CAwaitedCall;

namespace types::internal_proxyfunction
{

/// Calls a function of the proxy's actor; blocks as CActorProxy::RemoteCall() does.
NELO_RPC_API CValueList ActorProxyCallFunction(CActorProxy& proxy, std::string const& name, CValueList const& args);

/// Subscribes a handler to a callback of the proxy's actor, replacing an earlier one.
NELO_RPC_API void ActorProxySubscribeCallback(CActorProxy& proxy, std::string const& name,
                                              std::function<void(CValueList const&)> handler);

/// What becomes of a call whose result a typed function cannot take: CutOff if there is none, else BadValue and an
/// error line.
NELO_RPC_API CCallResult resultWithoutValue(CCallResult const& result, std::string const& function);

/// Reads the result of a typed function. Never fatal, as long as the traits of a type of the application's own say what
/// they take: see SValueTraits.
template <class Value>
CCallResultOf<Value> readResult(CCallResult result, std::string const& function)
{
    if (!result.IsOk())
    {
        return {std::move(result), std::nullopt};
    }
    auto const entry = result.GetList().find(0);
    if (entry == result.GetList().end() || entry->second == nullptr || !canUnpack<Value>(*entry->second))
    {
        return {resultWithoutValue(result, function), std::nullopt};
    }
    std::optional<Value> value = unpackValue<Value>(*entry->second);
    return {std::move(result), std::move(value)};
}

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
    CCallResult TryCallList(types::CValueList const& args, CCallOptions const& options) const;
    void CallListAsync(types::CValueList const& args, CCallOptions const& options,
                       std::function<void(CCallResult result)> done) const;
    std::string const& GetName() const { return m_name; }

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
        types::CValueList const reply = Call(Pack(args...));
        if (reply.count(0) == 0)
        {
            return std::nullopt;
        }
        return types::unpackAt<Result>(reply, 0);
    }

    /// The same, but says how the call ended, and never fatal: a result of another type is a BadValue, with an error
    /// line, and an answer without a result, which is what a call that was killed gets, is CutOff. So is that of a
    /// function which the actor does not have, if the server trusts its peers. Any thread. Since 0.1.
    CCallResultOf<Result> TryCallFunction(std::decay_t<A> const&... args) const
    {
        return TryCallFunction(CCallOptions(), args...);
    }
    CCallResultOf<Result> TryCallFunction(CCallOptions const& options, std::decay_t<A> const&... args) const
    {
        CCancellationGuard const guard;
        return types::internal_proxyfunction::readResult<Result>(TryCallList(Pack(args...), options), GetName());
    }

    /// Starts a call and returns without waiting for its end, of which `done` hears, once: see
    /// CActorProxy::RemoteCallAsync(). It gets what TryCallFunction() gives. Any thread. Since 0.1.
    void CallFunctionAsync(CCallOptions const& options, std::function<void(CCallResultOf<Result> result)> done,
                           std::decay_t<A> const&... args) const
    {
        CCancellationGuard const guard;
        StartTyped(Pack(args...), options, std::move(done));
    }

    /// The same for who wants no more than the value, or nothing when none came. Since 0.1.
    void CallAsync(std::function<void(std::optional<Result> value)> done, std::decay_t<A> const&... args) const
    {
        CallAsync(CCallOptions(), std::move(done), args...);
    }
    void CallAsync(CCallOptions const& options, std::function<void(std::optional<Result> value)> done,
                   std::decay_t<A> const&... args) const
    {
        CallFunctionAsync(
            options,
            [done = std::move(done)](CCallResultOf<Result> result) {
                if (done)
                {
                    done(result.TakeValue());
                }
            },
            args...);
    }

    /// The same for who waits for the value later. Not to be waited for in a handler, nor by whoever runs the handlers:
    /// the value comes from there. Since 0.1.
    std::future<std::optional<Result>> CallAsync(std::decay_t<A> const&... args) const
    {
        return CallAsync(CCallOptions(), args...);
    }
    std::future<std::optional<Result>> CallAsync(CCallOptions const& options, std::decay_t<A> const&... args) const
    {
        auto const promise = std::make_shared<std::promise<std::optional<Result>>>();
        std::future<std::optional<Result>> future = promise->get_future();
        CallAsync(
            options, [promise](std::optional<Result> value) { promise->set_value(std::move(value)); }, args...);
        return future;
    }

    /// The same for coroutines, `co_await`ed: needs C++20 and nelo_rpc/Awaiting.h, where it stands. Since 0.1.
    CAwaitedCall<Result> CallAwaitable(std::decay_t<A> const&... args) const;
    CAwaitedCall<Result> CallAwaitable(CCallOptions const& options, std::decay_t<A> const&... args) const;

private:
    static types::CValueList Pack(std::decay_t<A> const&... args)
    {
        types::CValueList list;
        int index = 0;
        static_cast<void>(index);
        ((list[index++] = types::packValue<std::decay_t<A>>(args)), ...);
        return list;
    }

    void StartTyped(types::CValueList const& args, CCallOptions const& options,
                    std::function<void(CCallResultOf<Result> result)> done) const
    {
        CallListAsync(args, options, [done = std::move(done), function = GetName()](CCallResult result) {
            if (done)
            {
                done(types::internal_proxyfunction::readResult<Result>(std::move(result), function));
            }
        });
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
