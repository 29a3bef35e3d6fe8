#include <nelo_rpc/nelo_rpc.h>

#include <csignal>
#include <iostream>
#include <sstream>
#include <string>

/// An ordinary class. Every proxy that a client makes gets an object of its own.
class CThermostat
{
public:
    bool SetTarget(double celsius)
    {
        if (celsius < 5.0 || celsius > 30.0)
        {
            return false;
        }
        m_celsius = celsius;
        OnChanged.Send(celsius, "a client asked for it");
        return true;
    }

    std::string Describe(int verbosity) const
    {
        std::ostringstream text;
        text << m_celsius << " degrees";
        if (verbosity > 0)
        {
            text << ", may be set from 5 to 30";
        }
        return text.str();
    }

    nelo_rpc::CCallbackSender<double, std::string> OnChanged;

private:
    double m_celsius = 20.0;
};

int main()
{
    // Blocked before the library makes its threads, so that the signals wait for sigwait() below.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Info);
    nelo_rpc::CDbusPort port("org.example.climate", true, nelo_rpc::SPortOptions::Recommended());
    if (!port.IsOpen())
    {
        std::cerr << "no bus, or it does not give the name org.example.climate: the log says why\n";
        return 1;
    }

    // The types are given to the constructor, because a waiting client calls as soon as the host listens.
    nelo_rpc::CRpcHost host(port, nelo_rpc::SHostOptions::Recommended(), [](nelo_rpc::CRpcHost& self) {
        self.RegisterActorType<CThermostat>("Thermostat", [](nelo_rpc::CActor& actor, CThermostat& thermostat) {
            actor.AddFunction("SetTarget", thermostat, &CThermostat::SetTarget);
            actor.AddFunction("Describe", thermostat, &CThermostat::Describe);
            actor.AddFunction("Sum", [](int a, int b) { return a + b; });
            actor.AddCallback("OnChanged", thermostat.OnChanged);
        });
    });
    std::cout << "the thermostat is ready" << std::endl;

    int received = 0;
    sigwait(&stop, &received);
    return 0;
}
