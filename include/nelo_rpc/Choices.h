#pragma once

/// What an application may choose beside the defaults, and port and host share.
namespace nelo_rpc
{

/// How messages of peers are met. Since 0.1.
enum class EPeers
{
    Trusted,  ///< an ill-formed message, or a call that makes no sense, ends the process
    Untrusted ///< it is refused with an error reply and an error line, and the process goes on
};

/// What becomes of the actors of a client that has left the bus. Since 0.1.
enum class EOrphans
{
    Keep,   ///< they stay until a callback to the client fails, or the host ends
    Destroy ///< they are destroyed
};

/// How a worker thread that hangs is killed. Since 0.1.
enum class EKill
{
    Anywhere,           ///< at whatever instruction it stands: locks that it holds stay held, what it owns is lost
    AtCancellationPoint ///< where POSIX allows it; one that gets to no such point is cut off: left alone, and replaced
};

} // namespace nelo_rpc
