#pragma once

#include <nelo_rpc/Export.h>

#include <string>

namespace nelo_rpc
{

class CActor;

/// Anything that sends a named callback through the actors it was registered on. Since 0.1.
class NELO_RPC_API ICallback
{
public:
    virtual ~ICallback();

    /// Sends through `actor` too from now on, as the callback `name`. The actor is not owned.
    virtual void AddActor(CActor* actor, std::string const& name) = 0;

    /// Returns when nothing is being sent through `actor` by another thread, and nothing will be.
    virtual void RemoveActor(CActor* actor) = 0;
};

} // namespace nelo_rpc
