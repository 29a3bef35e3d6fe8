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

/// How a worker that hangs is stopped. Since 0.1.
enum class EKill
{
    Anywhere,           ///< cancelled at any instruction: it ends at once, and what it holds may be lost
    AtCancellationPoint ///< cancelled where POSIX allows it; one that gets to no such place is cut off and replaced
};

/// What becomes of the actors of a client that left the bus. Since 0.1.
enum class EOrphans
{
    Keep,   ///< each stays until a callback of it fails
    Destroy ///< they are destroyed with their objects, soon after the client's name has gone
};

} // namespace nelo_rpc
