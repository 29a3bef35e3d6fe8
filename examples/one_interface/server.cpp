/// The server's side of an actor type that is declared once: it implements the interface and registers it.

#include "ILamp.h"

#include <csignal>
#include <iostream>
#include <string>

namespace
{

/// A function that is missing here, or has other arguments, does not compile.
class CLamp : public ILamp
{
public:
    bool Dim(int percent) override
    {
        if (percent < 0 || percent > 100)
        {
            return false;
        }
        m_percent = percent;
        OnDimmed.Send(percent);
        return true;
    }

    void SetLabel(std::string const& label) override { m_label = label; }

    std::string Describe() const override { return m_label + " at " + std::to_string(m_percent) + " percent"; }

private:
    std::string m_label = "a lamp";
    int m_percent = 100;
};

} // namespace

int main()
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Info);
    nelo_rpc::CDbusPort port("org.example.light", true, nelo_rpc::SPortOptions::Recommended());
    nelo_rpc::CRpcHost host(port, nelo_rpc::SHostOptions::Recommended(),
                            [](nelo_rpc::CRpcHost& self) { nelo_rpc::registerInterface<ILamp, CLamp>(self); });
    std::cout << "the lamps are ready" << std::endl;

    int received = 0;
    sigwait(&stop, &received);
    return 0;
}
