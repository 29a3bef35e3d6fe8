#include <nelo_rpc/nelo_rpc.h>

#include <benchmark/benchmark.h>
#include <dbus/dbus.h>

#include <functional>
#include <future>
#include <string>
#include <vector>

using namespace nelo_rpc;
using namespace nelo_rpc::types;

namespace
{

constexpr char const* SERVER = "org.example.bench";

CValueList callWith(std::shared_ptr<CValue> argument)
{
    return CValueList{{protocol::TYPE_NAME, makeValue<std::string>("Echo")},
                      {protocol::ACTOR_ID, makeValue<int>(1)},
                      {protocol::METHOD_NAME, makeValue<std::string>("EchoInt")},
                      {0, std::move(argument)}};
}

CValueList callWithInt()
{
    return callWith(packValue(7));
}

CValueList callWithBytes(benchmark::State const& state)
{
    return callWith(packValue(std::vector<std::uint8_t>(static_cast<std::size_t>(state.range(0)))));
}

// ---- marshalling ----

void buildACall(benchmark::State& state, CValueList const& call)
{
    for (auto _ : state)
    {
        dbus_message_unref(dbus::valueListToFunctionCall(SERVER, call));
    }
}

void BM_BuildCall(benchmark::State& state)
{
    buildACall(state, callWithInt());
}
BENCHMARK(BM_BuildCall);

void BM_BuildCallWithBytes(benchmark::State& state)
{
    buildACall(state, callWithBytes(state));
}
BENCHMARK(BM_BuildCallWithBytes)->RangeMultiplier(4)->Range(1 << 10, 1 << 20);

void BM_FillCallByAppending(benchmark::State& state)
{
    CValueList const call = callWithInt();
    for (auto _ : state)
    {
        DBusMessage* const message = dbus_message_new_method_call(SERVER, "/org/example", "org.example.Bench", "Call");
        dbus::fillDbusMessage(call, message);
        dbus_message_unref(message);
    }
}
BENCHMARK(BM_FillCallByAppending);

void BM_ReadCall(benchmark::State& state)
{
    DBusMessage* const message = dbus::valueListToFunctionCall(SERVER, callWithInt());
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(dbus::dbusMessageToValueList(message));
    }
    dbus_message_unref(message);
}
BENCHMARK(BM_ReadCall);

void BM_WhyNotSendableText(benchmark::State& state)
{
    CValueList const call = callWith(packValue(std::string(static_cast<std::size_t>(state.range(0)), 'x')));
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(dbus::whyNotSendable(call));
    }
}
BENCHMARK(BM_WhyNotSendableText)->Arg(16)->Arg(1024)->Arg(65536);

// ---- values ----

void BM_MakeList(benchmark::State& state)
{
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(callWithInt());
    }
}
BENCHMARK(BM_MakeList);

void BM_CopyList(benchmark::State& state)
{
    CValueList const call = callWithInt();
    for (auto _ : state)
    {
        CValueList copy = call;
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(BM_CopyList);

void BM_RenderList(benchmark::State& state)
{
    CValueList const call = callWithInt();
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(toString(call));
    }
}
BENCHMARK(BM_RenderList);

// ---- adapters ----

void BM_CallThroughAdapter(benchmark::State& state)
{
    ValueListFunction const function = makeValueListFunction([](int value) { return value; });
    CValueList const call = callWithInt();
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(function(call));
    }
}
BENCHMARK(BM_CallThroughAdapter);

void BM_CancellationGuard(benchmark::State& state)
{
    for (auto _ : state)
    {
        CCancellationGuard const guard;
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_CancellationGuard);

// ---- loop thread ----

void BM_PostAndWait(benchmark::State& state)
{
    CLoopThread thread;
    for (auto _ : state)
    {
        std::promise<void> done;
        thread.Post([&] { done.set_value(); }, "item");
        done.get_future().wait();
    }
    thread.StopAndJoin();
}
BENCHMARK(BM_PostAndWait)->UseRealTime();

void BM_PostMany(benchmark::State& state)
{
    CLoopThread thread;
    for (auto _ : state)
    {
        thread.Post([] {}, "item");
    }
    thread.StopAndJoin();
}
BENCHMARK(BM_PostMany)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    log::SetThreshold(log::ELevel::Info);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
