#pragma once

#include <nelo_rpc/Export.h>

#include <functional>
#include <string>

/// What becomes of the library's log lines: how important a line must be, and where it goes.
namespace nelo_rpc::log
{

/// Importance of a line, rising. Fatal lines are written immediately before the process is stopped.
enum class ELevel
{
    Debug,
    Info,
    Error,
    Fatal
};

/// Receives one line: its level and its whole text, without the tag.
///
/// Runs on the thread that logs, so it may run on several threads at once, and with library locks held
/// in a few places: it must not call the library. An exception that leaves it ends the process.
using Sink = std::function<void(ELevel level, std::string const& line)>;

/// Lets only lines of at least this level through; a line below costs one relaxed load.
///
/// The default is ELevel::Debug: every line. Any thread; does not block. Since 0.1.
NELO_RPC_API void SetThreshold(ELevel lowest);

/// Hands every later line to `sink` instead of the system log service; an empty one puts the service back.
///
/// Any thread. Returns when the sink that was replaced is not running on another thread any more, so what
/// it used may then be destroyed. Since 0.1.
NELO_RPC_API void SetSink(Sink sink);

} // namespace nelo_rpc::log
