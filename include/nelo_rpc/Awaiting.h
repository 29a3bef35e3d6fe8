#pragma once

// Not part of nelo_rpc.h: the library itself is for C++17, and this for coroutines.
#if !defined(__cpp_impl_coroutine)
#error "nelo_rpc/Awaiting.h needs coroutines: compile with -std=c++20 or later"
#else

#include <nelo_rpc/CCallOptions.h>
#include <nelo_rpc/CCallResult.h>
#include <nelo_rpc/ProxyEndpoints.h>

#include <coroutine>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

namespace nelo_rpc
{

/// A call that a coroutine waits for: what CProxyFunction::CallAwaitable() gives, to be `co_await`ed where it is made.
/// The result is a CCallResultOf<Value>.
///
/// The call starts when it is awaited. The coroutine goes on where the handlers of asynchronous calls run, which is on
/// the thread that delivers the client's callbacks, and what it does there until it next waits holds up all others. If
/// the call is completed before it is waited for, because nothing reads the client's port or the proxy is gone, the
/// coroutine just goes on. The end of a proxy lets coroutines that wait for its calls go on with Disconnected, inside
/// of its destructor: they must not use it any more.
///
/// A coroutine that waits may be destroyed on the thread that it would go on on; the result is dropped then.
/// Since 0.1.
template <class Value>
class [[nodiscard]] CAwaitedCall
{
public:
    /// Hears of the call's end.
    using Done = std::function<void(CCallResultOf<Value> result)>;

    /// @param start  starts the call; called once.
    explicit CAwaitedCall(std::function<void(Done)> start) : m_start(std::move(start)) {}

    CAwaitedCall(CAwaitedCall const&) = delete;
    CAwaitedCall& operator=(CAwaitedCall const&) = delete;
    ~CAwaitedCall() { m_state->coroutine = nullptr; }

    bool await_ready() const noexcept { return false; }

    // A function of its own for certain: once the call has started, the coroutine's frame, and this object in it, may
    // be gone, so nothing here may be kept in there.
    __attribute__((noinline)) bool await_suspend(std::coroutine_handle<> coroutine)
    {
        std::shared_ptr<SState> const state = m_state;
        std::function<void(Done)> const start = std::move(m_start);
        state->coroutine = coroutine;
        state->starter = std::this_thread::get_id();
        start([state](CCallResultOf<Value> result) { state->Complete(std::move(result)); });
        state->isStarting = false;
        return !state->isCompletedByStart;
    }

    CCallResultOf<Value> await_resume() { return std::move(*m_state->result); }

private:
    struct SState
    {
        void Complete(CCallResultOf<Value> ended)
        {
            if (!coroutine)
            {
                return;
            }
            result.emplace(std::move(ended));
            if (starter == std::this_thread::get_id() && isStarting)
            {
                isCompletedByStart = true; // await_suspend() is below on this stack, and goes on by itself
                return;
            }
            coroutine.resume();
        }

        std::coroutine_handle<> coroutine; // null once it is gone
        std::optional<CCallResultOf<Value>> result;
        std::thread::id starter;

        // Only for the thread that started the call.
        bool isStarting = true;
        bool isCompletedByStart = false;
    };

    std::function<void(Done)> m_start;
    std::shared_ptr<SState> m_state = std::make_shared<SState>();
};

template <class R, class... A>
CAwaitedCall<typename CProxyFunction<R(A...)>::Result>
CProxyFunction<R(A...)>::CallAwaitable(std::decay_t<A> const&... args) const
{
    return CallAwaitable(CCallOptions(), args...);
}

template <class R, class... A>
CAwaitedCall<typename CProxyFunction<R(A...)>::Result>
CProxyFunction<R(A...)>::CallAwaitable(CCallOptions const& options, std::decay_t<A> const&... args) const
{
    return CAwaitedCall<Result>([function = *this, options, list = Pack(args...)](auto done) {
        function.StartTyped(list, options, std::move(done));
    });
}

} // namespace nelo_rpc

#endif
