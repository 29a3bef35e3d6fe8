#pragma once

#include <nelo_rpc/CCallbackSender.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/Export.h>
#include <nelo_rpc/FunctionAdapters.h>
#include <nelo_rpc/ICallback.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <type_traits>
#include <utility>

namespace nelo_rpc
{

class CClientConnection;

namespace internal_callbacksender
{
NELO_RPC_API std::shared_ptr<CActor> ActorHold(CActor* actor);
}

/// The server's side of one actor: an application object with its callable functions and its callbacks.
///
/// Made by the connection of the client that asked for it; functions and callbacks are added by the setup function of
/// the actor's type. Functions run on the connection's worker thread. Since 0.1.
class NELO_RPC_API CActor
{
public:
    /// The object is not owned: the connection decides when it is destroyed.
    CActor(CClientConnection& connection, int id, std::string typeName, void* object);
    CActor(CActor const&) = delete;
    CActor& operator=(CActor const&) = delete;
    virtual ~CActor();

    /// Unique in the server process; 0 for a connection's own actor.
    int GetId() const;
    std::string GetTypeName() const;

    /// The application object as the type's create function returned it.
    void* GetObject() const;

    /// The sender of "OnRecreate", with which every actor is born.
    CCallbackSender<>& GetRecreateSender();

    bool HasFunction(std::string const& name) const;

    /// Runs a function with the whole call list and returns its result list.
    /// An unknown name logs an error and gives an empty list; what the function throws passes through.
    types::CValueList CallFunction(std::string const& name, types::CValueList const& args) const;

    /// Makes a function callable under a name, replacing an earlier one. For setup functions: not safe against calls.
    /// It gets whatever list a peer sends and looks at the arguments itself, also in a host that trusts nobody.
    void AddFunction(std::string const& name, ValueListFunction function);

    /// The same for a typed member function of an object, which must live as long as the actor.
    template <class T, class C, class R, class... A>
    void AddFunction(std::string const& name, T& object, R (C::*member)(A...))
    {
        CCancellationGuard const guard;
        Insert(name, makeValueListFunction(object, member), &findUnfitArgument<A...>);
    }
    template <class T, class C, class R, class... A>
    void AddFunction(std::string const& name, T& object, R (C::*member)(A...) const)
    {
        CCancellationGuard const guard;
        Insert(name, makeValueListFunction(object, member), &findUnfitArgument<A...>);
    }

    /// The same for a lambda, a function object or a function pointer. One that takes a value list and returns one
    /// gets the whole call, as a ValueListFunction does.
    template <class Callable>
    void AddFunction(std::string const& name, Callable&& callable)
    {
        CCancellationGuard const guard;
        std::function function(std::forward<Callable>(callable));
        if constexpr (std::is_same_v<decltype(function), ValueListFunction>)
        {
            AddFunction(name, std::move(function));
        }
        else
        {
            ArgumentCheck const check = argumentCheckFor(function);
            Insert(name, makeValueListFunction(std::move(function)), check);
        }
    }

    /// Lets the sender send through this actor under a name. It is not owned and must live until it is removed.
    /// For setup functions, as AddFunction() is: the actor's callbacks are not guarded against each other.
    void AddCallback(std::string const& name, ICallback& callback);

    /// Returns when no other thread is sending this callback through this actor.
    void RemoveCallback(ICallback& callback);

    /// Removes all callbacks, as RemoveCallback() does.
    void CleanCallbacks();

    /// Sends a callback to the actor's client. False when it could not be sent; the actor is then removed.
    bool SendCallback(std::string const& name, types::CValueList const& list) const;

    /// The index of the leftmost argument that is missing or that the function cannot take; -1 if there is none, if the
    /// function takes the whole list, and for an unknown name. Since 0.1.
    int FindUnfitArgument(std::string const& name, types::CValueList const& args) const;

private:
    friend class CClientConnection; // which makes it share ownership of itself
    friend std::shared_ptr<CActor> internal_callbacksender::ActorHold(CActor* actor);

    void Insert(std::string const& name, ValueListFunction function, ArgumentCheck check);
    ICallback* TakeCallback();
    void Abandon();

    CCallbackSender<> m_recreateSender;
    CClientConnection& m_connection;
    int m_id;
    // Shared with the call that runs a function: the actor may be deleted by a kill while a worker is inside.
    std::map<std::string, std::shared_ptr<ValueListFunction const>> m_functions;
    std::set<ICallback*> m_callbacks;
    std::string m_typeName;
    void* m_object;

    // Of this object, until the connection lets go of it. A call holds a copy, so that a kill cannot take the actor
    // away from a worker that is cut off inside the library.
    std::shared_ptr<CActor> m_self;

    std::map<std::string, ArgumentCheck> m_argumentChecks; // of the typed functions
    // The same, from before its setup to its end; for sends, so that one that is cut off is not waited for.
    std::weak_ptr<CActor> m_weakSelf;

    // Guards the callbacks: the handler of a kill removes them while a worker that is cut off may still add some.
    std::mutex m_callbacksMutex;
    bool m_isAbandoned = false;
};

} // namespace nelo_rpc
