/// nelo-rpc: looks at servers on the bus, calls them, and shows what passes between them and their clients.

#include "CServer.h"
#include "Commands.h"
#include "Terminal.h"
#include "Values.h"

#include <signal.h>

#include <algorithm>
#include <iostream>

namespace
{

constexpr char const* HELP = R"(usage: nelo-rpc COMMAND [OPTION...] [WORD...]

commands:
  list                                  servers on the bus
  call NAME TYPE FUNCTION [ARGUMENT...] makes an actor, calls it once, prints the result
  watch NAME TYPE CALLBACK [FUNCTION [ARGUMENT...]]
                                        makes an actor, calls FUNCTION if given, prints callbacks
  monitor [NAME]                        prints calls, results and callbacks of all servers, or of one (root only)
  ping NAME                             asks a server for a sign of life

options:
  --json             one JSON object a line instead of text
  --timeout SECONDS  call, ping: how long a call may take (25); watch, monitor: also how long to wait for the next
                     line (for ever); list --ask: how long to wait for each name (2)
  --count N          watch, monitor, ping: end after N lines
  --ask              list: ask every name on the bus, instead of looking for the library in the owners' processes
  --help, --version

arguments: int:5 unsigned:7 bool:true float:1.5 double:1.5 string:abc cstring:abc bytes:0011aa enum:3
  without a type: 5 is an int, 1.5 a double, true a bool, anything else without a colon a string

ends with 0 if all went well, 1 for other errors, 2 wrong usage, 3 no bus, 4 nobody owns NAME, 5 refused,
  6 no reply in time or the server left, 7 the server answered with nothing

Wrong types or names end a server that trusts its peers. Try with care what you do not know; see nelo-rpc(1).
)";

struct SCommand
{
    std::string name;
    void (*run)(SOptions const&);
    std::size_t minWords;
    std::size_t maxWords;
    std::string words;
    std::vector<std::string> options;
};

constexpr std::size_t ANY = 1000000;

std::vector<SCommand> const& commands()
{
    static std::vector<SCommand> const all = {
        {"list", &listServers, 0, 0, "", {"--json", "--timeout", "--ask"}},
        {"call", &callFunction, 3, ANY, "NAME TYPE FUNCTION [ARGUMENT...]", {"--json", "--timeout"}},
        {"watch",
         &watchCallback,
         3,
         ANY,
         "NAME TYPE CALLBACK [FUNCTION [ARGUMENT...]]",
         {"--json", "--timeout", "--count"}},
        {"monitor", &monitorTraffic, 0, 1, "[NAME]", {"--json", "--timeout", "--count"}},
        {"ping", &pingServer, 1, 1, "NAME", {"--json", "--timeout", "--count"}},
    };
    return all;
}

SCommand const& findCommand(std::string const& name)
{
    std::vector<std::string> names;
    for (SCommand const& command : commands())
    {
        if (command.name == name)
        {
            return command;
        }
        names.push_back(command.name);
    }
    if (name.empty())
    {
        throw CFailure(EExit::Usage, "no command given; nelo-rpc --help names them");
    }
    std::string const meant = suggestion(name, names);
    throw CFailure(EExit::Usage,
                   "unknown command '" + name + "'" + (meant.empty() ? "; nelo-rpc --help names them" : meant));
}

void requireFitting(SCommand const& command, SOptions const& options)
{
    for (std::string const& option : options.given)
    {
        if (std::find(command.options.begin(), command.options.end(), option) == command.options.end())
        {
            throw CFailure(EExit::Usage, command.name + " has no option " + option);
        }
    }
    if (options.words.size() < command.minWords || options.words.size() > command.maxWords)
    {
        throw CFailure(EExit::Usage, (options.words.size() < command.minWords ? "too few words" : "too many words") +
                                         std::string("; usage: nelo-rpc ") + command.name +
                                         (command.words.empty() ? "" : " ") + command.words);
    }
}

void run(std::vector<std::string> const& arguments)
{
    SOptions const options = parseOptions(arguments);
    if (options.help || options.version)
    {
        print(options.help ? std::string(HELP, std::string(HELP).size() - 1) : "nelo-rpc " NELO_RPC_VERSION);
        return;
    }
    SCommand const& command = findCommand(options.command);
    requireFitting(command, options);
    command.run(options);
}

} // namespace

int main(int argc, char** argv)
{
    ::signal(SIGPIPE, SIG_IGN); // a reader that has gone is a failed write, after which there is still an actor to end
    catchLog();
    try
    {
        run({argv + 1, argv + argc});
        return static_cast<int>(EExit::Done);
    }
    catch (CFailure const& failure)
    {
        std::cerr << "nelo-rpc: " << coloured(EColour::Red, "error:", true) << " " << onOneLine(failure.what())
                  << std::endl;
        return static_cast<int>(failure.GetExit());
    }
}
