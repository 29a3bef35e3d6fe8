#pragma once

#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/Values.h>

#include <functional>
#include <tuple>
#include <type_traits>
#include <utility>

/// Turns typed functions into the one form that every remotely callable function has.
namespace nelo_rpc
{

/// Takes a call's whole list (arguments at 0, 1, ..., reserved entries below) and returns the result list.
/// Runs on the worker thread of the connection that the call came from.
using ValueListFunction = std::function<types::CValueList(types::CValueList const&)>;

namespace internal_adapters
{

template <class R, class... A, std::size_t... I>
types::CValueList adaptAt(std::function<R(A...)> const& f, types::CValueList const& args, std::index_sequence<I...>)
{
    // Braces fix the order: the leftmost argument that is missing or ill-typed is the one reported.
    std::tuple<std::decay_t<A>...> unpacked{types::unpackAt<std::decay_t<A>>(args, static_cast<int>(I))...};
    static_cast<void>(unpacked);

    auto const call = [&]() -> R {
        CCancellationWindow const window;
        return f(static_cast<A&&>(std::get<I>(unpacked))...);
    };

    types::CValueList result;
    result[0] = types::packValue<std::decay_t<R>>(call());
    return result;
}

template <class T>
bool isFit(types::CValueList const& args, int index)
{
    auto const entry = args.find(index);
    return entry != args.end() && entry->second != nullptr && types::canUnpack<T>(*entry->second);
}

} // namespace internal_adapters

/// Reads the arguments from 0, 1, ..., calls `f` and returns a list that holds its result at 0.
///
/// A missing or ill-typed argument is fatal ("wrong type in CValue"); an empty `f` raises std::bad_function_call;
/// what `f` throws passes through. Reserved entries are ignored and not copied. Since 0.1.
template <class R, class... A>
types::CValueList adapt(std::function<R(A...)> const& f, types::CValueList const& args)
{
    return internal_adapters::adaptAt(f, args, std::index_sequence_for<A...>{});
}

/// Makes a function without a result one that answers true. An empty `f` raises std::bad_function_call when called.
/// With the argument's type given, as in makeNoVoidFunction<int>(...), anything callable will do.
template <class... A>
std::function<bool(A...)> makeNoVoidFunction(std::function<void(A...)> f)
{
    return [f = std::move(f)](A... args) -> bool {
        f(std::forward<A>(args)...);
        return true;
    };
}

template <class A>
std::function<bool(A)> makeNoVoidFunction(std::function<void(A)> f)
{
    return [f = std::move(f)](A arg) -> bool {
        f(std::forward<A>(arg));
        return true;
    };
}

/// The uniform form of a typed function, which is copied. Without a result it answers true. Since 0.1.
template <class R, class... A>
ValueListFunction makeValueListFunction(std::function<R(A...)> f)
{
    if constexpr (std::is_void_v<R>)
    {
        return makeValueListFunction(makeNoVoidFunction(std::move(f)));
    }
    else
    {
        return [f = std::move(f)](types::CValueList const& args) { return adapt(f, args); };
    }
}

/// The same for a lambda, a function object or a function pointer, whose signature must be unambiguous.
template <class Callable>
ValueListFunction makeValueListFunction(Callable&& callable)
{
    return makeValueListFunction(std::function(std::forward<Callable>(callable)));
}

/// The uniform form of a member function of `object`, which is not owned and must outlive the function. Since 0.1.
template <class T, class C, class R, class... A>
ValueListFunction makeValueListFunction(T& object, R (C::*member)(A...))
{
    return makeValueListFunction(std::function<R(A...)>(
        [&object, member](A... args) -> R { return (object.*member)(std::forward<A>(args)...); }));
}
template <class T, class C, class R, class... A>
ValueListFunction makeValueListFunction(T& object, R (C::*member)(A...) const)
{
    return makeValueListFunction(std::function<R(A...)>(
        [&object, member](A... args) -> R { return (object.*member)(std::forward<A>(args)...); }));
}

/// Looks at the arguments of a call before a typed function is called with them: the index of the leftmost one that is
/// missing or that the function cannot take, or -1. Never fatal. Since 0.1.
using ArgumentCheck = int (*)(types::CValueList const& args);

/// The check for arguments of the given types. Arguments behind them are not looked at. Since 0.1.
template <class... A>
int findUnfitArgument(types::CValueList const& args)
{
    static_cast<void>(args); // of a function without arguments
    int index = 0;
    bool const allFit = (true && ... && (internal_adapters::isFit<std::decay_t<A>>(args, index) && ++index > 0));
    return allFit ? -1 : index;
}

/// The check that belongs to a typed function. Since 0.1.
template <class R, class... A>
ArgumentCheck argumentCheckFor(std::function<R(A...)> const&)
{
    return &findUnfitArgument<A...>;
}

} // namespace nelo_rpc
