#pragma once

#include <nelo_rpc/nelo_rpc.h>

/// The choices that campaigns vary, in the one place where they are made.

inline nelo_rpc::SPortOptions stressPortOptions(bool trusted)
{
    nelo_rpc::SPortOptions options = nelo_rpc::SPortOptions::Recommended();
    options.peers = trusted ? nelo_rpc::EPeers::Trusted : nelo_rpc::EPeers::Untrusted;
    return options;
}

inline nelo_rpc::SHostOptions stressHostOptions(bool trusted, nelo_rpc::EKill kill)
{
    nelo_rpc::SHostOptions options = nelo_rpc::SHostOptions::Recommended();
    options.peers = trusted ? nelo_rpc::EPeers::Trusted : nelo_rpc::EPeers::Untrusted;
    options.kill = kill;
    // The limits have tests of their own; here it counts what comes of too much.
    options.maxActors = 0;
    options.maxQueuedCalls = 0;
    return options;
}
