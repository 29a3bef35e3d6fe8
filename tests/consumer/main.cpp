#include <nelo_rpc/nelo_rpc.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace
{

void require(bool condition, char const* what)
{
    if (!condition)
    {
        throw std::runtime_error(what);
    }
}

/// A value of the program's own type and one made by the library are the same type on both sides of the border.
void checkValues()
{
    nelo_rpc::types::CValueList list;
    list[nelo_rpc::protocol::METHOD_NAME] = nelo_rpc::types::makeValue<std::string>("Sum");
    list[0] = nelo_rpc::types::packValue(20);
    list[1] = nelo_rpc::types::packValue(2.5);

    require(nelo_rpc::types::toString(list).find("METHOD_NAME = (") != std::string::npos, "text of a list");
    require(nelo_rpc::types::unpackAt<int>(list, 0) == 20, "integer");
    require(nelo_rpc::types::unpackAt<double>(list, 1) == 2.5, "floating-point number");
}

void checkCalls()
{
    auto const sum = nelo_rpc::makeValueListFunction([](int a, int b) { return a + b; });

    nelo_rpc::types::CValueList arguments;
    arguments[0] = nelo_rpc::types::packValue(40);
    arguments[1] = nelo_rpc::types::packValue(2);
    nelo_rpc::types::CValueList const result = sum(arguments);

    require(nelo_rpc::types::unpackAt<int>(result, 0) == 42, "result of a call");
}

void checkThreads()
{
    std::string ran;
    nelo_rpc::CLoopThread thread;
    thread.Post([&] { ran += 'A'; }, "A");
    thread.Post([&] { ran += 'B'; }, "B");
    thread.StopAndJoin();

    require(ran == "AB", "order of work");
}

} // namespace

int main()
{
    nelo_rpc::log::SetSink([](nelo_rpc::log::ELevel, std::string const&) {});

    checkValues();
    checkCalls();
    checkThreads();

    std::puts("consumer works");
}
