#include "CServer.h"
#include "Commands.h"
#include "Terminal.h"
#include "Values.h"

using nelo_rpc::types::CValueList;

namespace
{

/// Text goes out as it is, except to a terminal.
std::string shownText(nelo_rpc::types::CValue& value)
{
    std::string const text = plainText(value);
    return isTerminal() ? onOneLine(text) : text;
}

void printResult(CValueList const& result)
{
    if (result.size() == 1 && result.begin()->first == 0)
    {
        print(shownText(*result.begin()->second));
        return;
    }
    for (auto const& [index, value] : result)
    {
        print(std::to_string(index) + ": " + shownText(*value));
    }
}

} // namespace

void callFunction(SOptions const& options)
{
    std::string const& name = options.words.at(0);
    std::string const& type = options.words.at(1);
    std::string const& function = options.words.at(2);
    requireBusName(name);
    CValueList const arguments = parseArguments({options.words.begin() + 3, options.words.end()});

    CBus bus;
    CServer server(bus, name, options);
    server.WithActor(type, [&](int actorId) {
        CValueList const result = server.Call(type, actorId, function, arguments);
        if (options.json)
        {
            print("{\"actor\":" + std::to_string(actorId) + ",\"ms\":" + inMilliseconds(server.GetDuration()) +
                  ",\"result\":" + json(result) + "}");
        }
        else
        {
            printResult(result);
        }
    });
}
