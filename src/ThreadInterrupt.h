#pragma once

#include <nelo_rpc/Export.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

/// A look at a thread that does not come back, from outside: it is interrupted by a signal and runs a little function.
///
/// The signal is SIGURG, which does nothing to a process that has no handler for it. A handler that the application
/// installed before is called for every other such signal; one that it installs later takes this one's place, and a
/// thread that blocks the signal is not interrupted: then nothing comes of it.
namespace nelo_rpc::interrupt
{

/// Installs the handler and loads what a stack is read with, once: neither can be done when a thread already hangs.
NELO_RPC_API void Prepare();

/// The kernel's id of the calling thread.
NELO_RPC_API int OwnThread();

/// Runs a function on another thread of this process, in a signal handler.
///
/// @param thread    the kernel's id of the thread.
/// @param function  must be fit for a signal handler.
/// @param data      what it is given; kept until it has returned.
/// @param mustStay  asked by the thread after that: while it says so, and for a minute at most, the thread does not go
///                  on, if the signal has ended a system call of its that the kernel does not make again. May be null.
/// @return whether it has run within the limit. If not, it has not begun and will not, or it still runs.
NELO_RPC_API bool Run(int thread, void (*function)(void* data), std::shared_ptr<void> data,
                      std::chrono::milliseconds limit, bool (*mustStay)() = nullptr);

/// The stack of another thread, the innermost frame first, each as "<address> <module>+<offset>"; empty if it could not
/// be had within the limit. No lock that the thread may hold is waited for.
///
/// A worker that is to be cancelled next does not go on with a call that the signal has ended before that: it would take
/// an interrupted sleep for the end of what it waits for, and answer.
NELO_RPC_API std::vector<std::string> StackOf(int thread, std::chrono::milliseconds limit);

} // namespace nelo_rpc::interrupt
