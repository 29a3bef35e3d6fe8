#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// What a program of the comparison consists of: one client and one server, written the way their library is meant to
/// be used. Each contender's source implements the two functions below; Main.cpp does the rest.
namespace bench
{

using Bytes = std::vector<std::uint8_t>;

/// Calls a server of the same contender. A call that fails ends the process (see fail()).
class IClient
{
public:
    virtual ~IClient() = default;

    // Each blocks for the server's answer, which is the argument.
    virtual int EchoInt(int value) = 0;
    virtual std::string EchoText(std::string const& text) = 0;
    virtual Bytes EchoBytes(Bytes const& bytes) = 0;

    /// Has the server send that many callbacks with an integer each, and returns when all have been handled.
    virtual void ReceiveCallbacks(int count) = 0;

    /// Makes that many calls of EchoInt, keeps `window` of them open at a time, or as many as are left, and returns
    /// when all have been answered with their arguments.
    virtual void EchoInFlight(int calls, int window) = 0;

    /// Makes an object in the server and destroys it. For contenders that have such.
    virtual void MakeAndDestroy();

    /// Leaves that many objects in the server behind. For contenders that have such.
    virtual void Populate(int objects);

    /// Destroys what Populate() has made, one after the other. For contenders that have such.
    virtual void Depopulate();
};

/// @param variant  one of several ways to use the library, as the contender names them.
std::unique_ptr<IClient> makeClient(std::string const& variant, std::string const& server);

/// Serves until the process is ended. Calls `ready` once, when clients may call.
[[noreturn]] void serve(std::string const& variant, std::string const& name, std::function<void()> const& ready);

[[noreturn]] void fail(std::string const& what);

} // namespace bench
