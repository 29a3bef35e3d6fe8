#include "CServer.h"
#include "CWait.h"
#include "Commands.h"
#include "Terminal.h"
#include "Values.h"

namespace
{

constexpr std::chrono::seconds BETWEEN(1);

} // namespace

void pingServer(SOptions const& options)
{
    std::string const& name = options.words.at(0);
    requireBusName(name);
    CWait const wait;
    CBus bus;
    CServer server(bus, name, options);
    long const count = options.count.value_or(1);
    for (long i = 1; i <= count; ++i)
    {
        server.Ping();
        std::string const ms = inMilliseconds(server.GetDuration());
        print(options.json ? "{\"name\":" + jsonText(name) + ",\"number\":" + std::to_string(i) + ",\"ms\":" + ms + "}"
                           : name + " answered in " + ms + " ms");
        if (i < count && wait.Until({}, CWait::After(BETWEEN)) == CWait::EEnd::Interrupted)
        {
            return;
        }
    }
}
