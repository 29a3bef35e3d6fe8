#include <nelo_rpc/nelo_rpc.h>

#include <csignal>
#include <cstring>
#include <iostream>
#include <string>

/// A server with two functions, or a client that calls them once, with its log on the standard error stream.
///
/// usage: PeerProgram server NAME      writes "ready" and runs until SIGTERM
///        PeerProgram client NAME      ends with 0 if it got its result, and one so large that the server pings for it
namespace
{

class CAdder
{
public:
    int Add(int a, int b) { return a + b; }
    std::string Repeat(int times) { return std::string(static_cast<std::size_t>(times), 'a'); }
};

class CAdderProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CAdderProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Adder") {}

    nelo_rpc::CProxyFunction<int(int, int)> Add{*this, "Add"};
    nelo_rpc::CProxyFunction<std::string(int)> Repeat{*this, "Repeat"};
};

int serve(char const* name)
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    nelo_rpc::CDbusPort port(name, true, nelo_rpc::SPortOptions::Recommended());
    nelo_rpc::CRpcHost host(port, nelo_rpc::SHostOptions::Recommended(), [](nelo_rpc::CRpcHost& self) {
        self.RegisterActorType<CAdder>("Adder", [](nelo_rpc::CActor& actor, CAdder& adder) {
            actor.AddFunction("Add", adder, &CAdder::Add);
            actor.AddFunction("Repeat", adder, &CAdder::Repeat);
        });
    });
    std::cout << "ready" << std::endl;

    int received = 0;
    sigwait(&stop, &received);
    return 0;
}

int call(char const* name)
{
    nelo_rpc::CDbusPort port("org.example.client", name, false);
    nelo_rpc::CRpcClient client(port);
    CAdderProxy adder(client);
    constexpr int MUCH = 100 * 1024;
    return adder.Add.TryCall(2, 3) == 5 && adder.Repeat(MUCH).size() == MUCH ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
    {
        return 2;
    }
    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Info);
    nelo_rpc::log::SetSink([](nelo_rpc::log::ELevel, std::string const& line) { std::cerr << (line + "\n"); });
    return std::strcmp(argv[1], "server") == 0 ? serve(argv[2]) : call(argv[2]);
}
