#pragma once

#include <nelo_rpc/GuardedFunction.h>
#include <nelo_rpc/dbusport/CDbusPort.h>

#include "CPeerWatch.h"

#include <dbus/dbus.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>

namespace nelo_rpc
{

class CDbusPort::CWatch
{
public:
    void TellLoss()
    {
        if (!destroying && !lost.exchange(true))
        {
            lostListener.Call();
        }
    }

    CPeerWatch peers;
    std::multimap<std::string, int> earlierIds; // of peers that were given several; guarded as all ids are
    std::atomic<bool> watched{false};           // ever: news may still be on their way after the end

    std::atomic<bool> lost{false};
    std::atomic<bool> destroying{false}; // from then on the connection's end is the port's own doing
    internal_guarded::CGuardedFunction<> lostListener;

    bool matched = false;               // the bus sends names that go; guarded by the port's send mutex
    std::atomic<bool> remembers{false}; // the bus has said that it sends them, and is to for good

    std::mutex mutex;

    // Guarded by the mutex.
    std::map<std::string, SPeerCredentials> credentials;
    std::set<std::string> present; // unique names that the bus knew, and has not told of since
    unsigned long goneCount = 0;   // how often it has told of one
};

} // namespace nelo_rpc
