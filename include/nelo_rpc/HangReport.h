#pragma once

#include <nelo_rpc/CRpcPort.h>
#include <nelo_rpc/Export.h>

#include <optional>
#include <string>
#include <vector>

namespace nelo_rpc
{

/// What is known of a worker that is about to be killed because it hangs. Since 0.1.
struct NELO_RPC_API SHangReport
{
    int connectionId = 0;

    /// Who the client is: the name that the port sends to it under, and what the port knew of it before its first call
    /// was carried out.
    std::string peerName;
    std::optional<SPeerCredentials> peer;

    /// The actor's type; that of the actor concerned while one is made or destroyed.
    std::string actorType;

    /// The function that was called: "ctor" and "dtor" too, or "remove" for an actor whose client has gone.
    std::string function;

    /// How long the worker has been at it, in milliseconds. Calls that it did before do not count.
    int runningMs = 0;

    /// The kernel's id of the worker.
    int threadId = 0;

    /// Where the worker stands, the innermost frame first, each as "<address> <file>+<offset>", as addr2line takes the
    /// offset. Empty if it did not answer in time: it blocks signals, or the application has taken SIGURG for itself.
    std::vector<std::string> stack;
};

} // namespace nelo_rpc
