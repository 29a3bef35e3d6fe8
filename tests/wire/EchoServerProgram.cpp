// A server that answers each call with the call's own arguments.
//
// usage: EchoServerProgram <bus name> [untrusted]
//
// Prints "ready" when the name is its own, then "call <connection id> <list>" and "callback <list>" for what arrives.
// Reads commands from standard input until its end: "callback <connection id>" sends a list of every class of value
// to the peer and prints "sent 1", or "sent 0" if that failed.

#include "CLogCapture.h"
#include "WireLists.h"

#include <nelo_rpc/nelo_rpc.h>

#include <iostream>
#include <mutex>
#include <sstream>
#include <string>

using nelo_rpc::types::CValueList;

namespace
{

void print(std::string const& line)
{
    static std::mutex mutex;
    std::lock_guard<std::mutex> const lock(mutex);
    std::cout << line << std::endl; // flushed, as somebody waits for it
}

CValueList argumentsOf(CValueList const& call)
{
    CValueList arguments = call;
    arguments.erase(arguments.begin(), arguments.lower_bound(0));
    return arguments;
}

} // namespace

int main(int argc, char** argv)
{
    bool const isUntrusted = argc == 3 && std::string(argv[2]) == "untrusted";
    if (argc != 2 && !isUntrusted)
    {
        std::cerr << "usage: EchoServerProgram <bus name> [untrusted]\n";
        return 2;
    }
    installStderrSink();

    nelo_rpc::SPortOptions options = nelo_rpc::SPortOptions::Recommended();
    if (!isUntrusted)
    {
        options.peers = nelo_rpc::EPeers::Trusted; // most lists that are tried out are no calls of actors
    }
    nelo_rpc::CDbusPort port(argv[1], true, options);
    port.SetCallbackListener(
        [](CValueList const& callback) { print("callback " + nelo_rpc::types::toString(callback)); });
    port.SetFunctionCallListener(
        [](CValueList const& call, int connectionId, nelo_rpc::CRpcPort::ReplyFunction const& reply) {
            print("call " + std::to_string(connectionId) + " " + nelo_rpc::types::toString(call));
            reply(argumentsOf(call));
        });
    print("ready");

    for (std::string line; std::getline(std::cin, line);)
    {
        std::istringstream words(line);
        std::string command;
        int connectionId = -1;
        words >> command >> connectionId;
        if (command == "callback")
        {
            print("sent " + std::to_string(static_cast<int>(port.SendCallback(listOfEveryClass(), connectionId))));
        }
    }
    return 0;
}
