// A client that makes calls on command.
//
// usage: CallerProgram <own bus name> <server's bus name>
//
// Prints "ready" when it is connected, then "callback <list>" for what arrives. Reads commands from standard input
// until its end: "call" calls with a list of every class of value, "call empty" with an empty list; both print
// "reply <list>".

#include "CLogCapture.h"
#include "WireLists.h"

#include <nelo_rpc/nelo_rpc.h>

#include <iostream>
#include <mutex>
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

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
    {
        std::cerr << "usage: CallerProgram <own bus name> <server's bus name>\n";
        return 2;
    }
    installStderrSink();

    nelo_rpc::CDbusPort port(argv[1], argv[2], false);
    port.SetTimeoutMs(20000);
    port.SetCallbackListener(
        [](CValueList const& callback) { print("callback " + nelo_rpc::types::toString(callback)); });
    nelo_rpc::CCallbackDelivery const delivery(port);
    print("ready");

    for (std::string line; std::getline(std::cin, line);)
    {
        if (line == "call")
        {
            print("reply " + nelo_rpc::types::toString(port.CallFunction(listOfEveryClass(), 0)));
        }
        else if (line == "call empty")
        {
            print("reply " + nelo_rpc::types::toString(port.CallFunction(CValueList(), 0)));
        }
    }
    return 0;
}
