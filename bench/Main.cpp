#include "Contender.h"
#include "ProcessCost.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <numeric>
#include <sstream>

namespace bench
{

void fail(std::string const& what)
{
    std::cerr << "failed: " << what << std::endl;
    std::_Exit(1);
}

void IClient::MakeAndDestroy()
{
    fail("there are no objects to make");
}

void IClient::Populate(int)
{
    fail("there are no objects to make");
}

void IClient::Depopulate()
{
    fail("there are no objects to destroy");
}

namespace
{

constexpr std::size_t KIBIBYTE = 1024;

constexpr int IN_FLIGHT = 64;

using Clock = std::chrono::steady_clock;

/// What one operation does, and how many callbacks or calls it stands for.
struct SWorkload
{
    std::function<void(IClient&)> run;
    int weight = 1;
};

void require(bool isRight)
{
    if (!isRight)
    {
        fail("a wrong answer");
    }
}

SWorkload echoOfInt()
{
    return {[value = 0](IClient& client) mutable {
        ++value;
        require(client.EchoInt(value) == value);
    }};
}

SWorkload echoOfText(std::size_t size)
{
    return {[text = std::string(size, 'x')](IClient& client) { require(client.EchoText(text) == text); }};
}

SWorkload echoOfBytes(std::size_t size)
{
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
    return {[bytes = std::move(bytes)](IClient& client) { require(client.EchoBytes(bytes) == bytes); }};
}

SWorkload workloadOf(std::string const& name, int count)
{
    std::map<std::string, std::function<SWorkload()>> const workloads = {
        {"int", [] { return echoOfInt(); }},
        {"text-1k", [] { return echoOfText(KIBIBYTE); }},
        {"bytes-64k", [] { return echoOfBytes(64 * KIBIBYTE); }},
        {"bytes-1m", [] { return echoOfBytes(KIBIBYTE * KIBIBYTE); }},
        {"callbacks",
         [&] {
             return SWorkload{[count](IClient& client) { client.ReceiveCallbacks(count); }, count};
         }},
        {"in-flight",
         [&] {
             return SWorkload{[count](IClient& client) { client.EchoInFlight(count, IN_FLIGHT); }, count};
         }},
        {"depopulate",
         [&] {
             return SWorkload{[](IClient& client) { client.Depopulate(); }, count};
         }},
        {"objects", [] { return SWorkload{[](IClient& client) { client.MakeAndDestroy(); }}; }},
    };
    auto const workload = workloads.find(name);
    if (workload == workloads.end())
    {
        fail("no workload " + name);
    }
    return workload->second();
}

double microseconds(Clock::duration duration)
{
    return std::chrono::duration<double, std::micro>(duration).count();
}

/// The value that the given part of all values do not exceed.
double quantile(std::vector<double> values, double part)
{
    auto const position = static_cast<std::size_t>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(position), values.end());
    return values[position];
}

/// "name=pid,..." and this process.
std::map<std::string, int> watchedProcesses(std::string const& list)
{
    std::map<std::string, int> processes = {{"client", ::getpid()}};
    std::istringstream entries(list);
    for (std::string entry; std::getline(entries, entry, ',');)
    {
        auto const sign = entry.find('=');
        processes[entry.substr(0, sign)] = std::stoi(entry.substr(sign + 1));
    }
    return processes;
}

std::map<std::string, SProcessCost> costsOf(std::map<std::string, int> const& processes)
{
    std::map<std::string, SProcessCost> costs;
    for (auto const& [name, pid] : processes)
    {
        costs[name] = costOf(pid);
    }
    return costs;
}

void waitForGo()
{
    std::cout << "ready" << std::endl;
    std::string line;
    std::getline(std::cin, line);
}

struct SMeasurement
{
    Clock::time_point begin;
    Clock::time_point end;
    std::vector<double> latencies; // microseconds
};

SMeasurement measure(IClient& client, SWorkload const& workload, int operations)
{
    SMeasurement result;
    result.latencies.reserve(static_cast<std::size_t>(operations));
    result.begin = Clock::now();
    for (Clock::time_point last = result.begin; operations > 0; --operations)
    {
        workload.run(client);
        auto const now = Clock::now();
        result.latencies.push_back(microseconds(now - last));
        last = now;
    }
    result.end = Clock::now();
    return result;
}

void report(SMeasurement const& result, int weight, std::map<std::string, SProcessCost> const& before,
            std::map<std::string, SProcessCost> const& after)
{
    auto const operations = static_cast<double>(result.latencies.size()) * weight;
    std::cout << "{\"operations\": " << operations << ", \"begin\": " << std::fixed
              << microseconds(result.begin.time_since_epoch())
              << ", \"end\": " << microseconds(result.end.time_since_epoch())
              << ", \"p50_us\": " << quantile(result.latencies, 0.50) / weight
              << ", \"p99_us\": " << quantile(result.latencies, 0.99) / weight;
    for (auto const& [name, cost] : after)
    {
        SProcessCost const& earlier = before.at(name);
        std::cout << ", \"" << name << "_cpu_us\": " << (cost.cpuMicroseconds - earlier.cpuMicroseconds) / operations
                  << ", \"" << name
                  << "_switches\": " << static_cast<double>(cost.contextSwitches - earlier.contextSwitches) / operations
                  << ", \"" << name << "_rss_kib\": " << cost.residentKibibytes;
    }
    std::cout << "}" << std::endl;
}

void runClient(std::string const& variant, std::string const& server, std::vector<std::string> const& arguments)
{
    int const count = std::stoi(arguments.at(1));
    SWorkload const workload = workloadOf(arguments.at(0), count);
    int const operations = workload.weight == 1 ? count : 1;
    auto const processes = watchedProcesses(arguments.size() > 2 ? arguments[2] : "");
    int const objects = arguments.size() > 3 ? std::stoi(arguments[3]) : 0;

    auto const client = makeClient(variant, server);
    if (objects > 0)
    {
        client->Populate(objects);
    }
    for (int warmUp = std::max(3, operations / 20); warmUp > 0 && workload.weight == 1; --warmUp)
    {
        workload.run(*client);
    }
    waitForGo();
    auto const before = costsOf(processes);
    SMeasurement const result = measure(*client, workload, operations);
    auto const after = costsOf(processes);
    report(result, workload.weight, before, after);
    std::string line;
    std::getline(std::cin, line); // others may still be measured
}

} // namespace

} // namespace bench

/// usage: PROGRAM VARIANT server NAME
///        PROGRAM VARIANT client NAME WORKLOAD COUNT [PROCESS=PID,... [OBJECTS]]
///
/// A server writes "ready" and serves until it is ended. A client writes "ready", waits for a line, measures, writes one
/// line of JSON and waits for another line.
int main(int argc, char** argv)
{
    std::vector<std::string> const arguments(argv + 1, argv + argc);
    if (arguments.size() < 3)
    {
        bench::fail("usage: VARIANT server|client NAME ...");
    }
    ::prctl(PR_SET_PDEATHSIG, SIGTERM); // nothing is left behind by a runner that was interrupted
    if (arguments[1] == "server")
    {
        bench::serve(arguments[0], arguments[2], [] { std::cout << "ready" << std::endl; });
    }
    bench::runClient(arguments[0], arguments[2], {arguments.begin() + 3, arguments.end()});
    return 0;
}
