#include "CServer.h"
#include "CWait.h"
#include "Commands.h"
#include "Terminal.h"
#include "Values.h"

using nelo_rpc::types::CValueList;

namespace
{

/// Prints the callbacks of one name, and counts them.
class CPrinter
{
public:
    CPrinter(SOptions const& options, std::string callback) : m_options(options), m_callback(std::move(callback)) {}

    void Take(int actorId, std::string const& name, CValueList const& payload)
    {
        if (name != m_callback || IsDone())
        {
            return;
        }
        ++m_count;
        m_lines.push_back(m_options.json
                              ? "{\"time\":" + jsonText(timeStamp()) + ",\"actor\":" + std::to_string(actorId) +
                                    ",\"callback\":" + jsonText(name) + ",\"payload\":" + json(payload) + "}"
                              : timeOfDay() + "  " + onOneLine(name) + typedText(payload));
    }

    /// Not within the library's handler, which nothing may be thrown through.
    ///
    /// @return whether there was anything to print.
    bool Print()
    {
        std::vector<std::string> const lines = std::exchange(m_lines, {});
        for (std::string const& line : lines)
        {
            print(line);
        }
        return !lines.empty();
    }

    bool IsDone() const { return m_options.count && m_count >= *m_options.count; }
    long GetCount() const { return m_count; }

private:
    SOptions const& m_options;
    std::string const m_callback;
    long m_count = 0;
    std::vector<std::string> m_lines;
};

[[noreturn]] void failOnTimeout(SOptions const& options, CPrinter const& printer)
{
    throw CFailure(EExit::NoReply, "no callback '" + onOneLine(options.words.at(2)) + "' came in time, after " +
                                       std::to_string(printer.GetCount()) + " of them");
}

void waitForCallbacks(SOptions const& options, CWait const& wait, CBus& bus, CServer& server, CPrinter& printer)
{
    CWait::Moment limit = CWait::After(options.timeout);
    for (;;)
    {
        server.Dispatch();
        if (printer.Print())
        {
            limit = CWait::After(options.timeout);
        }
        while (bus.Next() != nullptr)
        {
            server.RequireThere(); // all that this connection hears of is the server's name
        }
        if (printer.IsDone())
        {
            return;
        }
        CWait::EEnd const end = wait.Until({server.GetFd(), bus.GetFd()}, limit);
        if (end == CWait::EEnd::Interrupted)
        {
            return;
        }
        if (end == CWait::EEnd::TimedOut)
        {
            failOnTimeout(options, printer);
        }
    }
}

} // namespace

void watchCallback(SOptions const& options)
{
    std::string const& name = options.words.at(0);
    std::string const& type = options.words.at(1);
    requireBusName(name);
    bool const callsFirst = options.words.size() > 3;
    CValueList const arguments =
        callsFirst ? parseArguments({options.words.begin() + 4, options.words.end()}) : CValueList();

    CWait const wait;
    CPrinter printer(options, options.words.at(2));
    CBus bus;
    CServer server(bus, name, options);
    bus.WatchOwner(name);
    server.WithActor(type, [&](int actorId) {
        server.SubscribeCallbacks(actorId, [&printer, actorId](std::string const& callback, CValueList const& payload) {
            printer.Take(actorId, callback, payload);
        });
        if (callsFirst)
        {
            server.Call(type, actorId, options.words.at(3), arguments);
        }
        waitForCallbacks(options, wait, bus, server, printer);
    });
}
