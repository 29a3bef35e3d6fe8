#pragma once

#include <nelo_rpc/nelo_rpc.h>

/// The choices that campaigns vary, in the one place where they are made.

/// Whether a host can be told not to trust its peers. While it cannot, a well-formed call that makes no sense ends it.
inline constexpr bool HOSTS_CAN_DISTRUST = false;

/// Whether a host can be told to cancel hung workers at cancellation points only.
inline constexpr bool HOSTS_CAN_DEFER_KILLS = false;

enum class EKillChoice
{
    Anywhere,
    AtCancellationPoint
};

inline nelo_rpc::SPortOptions stressPortOptions(bool trusted)
{
    nelo_rpc::SPortOptions options = nelo_rpc::SPortOptions::Recommended();
    options.peers = trusted ? nelo_rpc::EPeers::Trusted : nelo_rpc::EPeers::Untrusted;
    return options;
}

inline nelo_rpc::SHostOptions stressHostOptions(bool /*trusted*/, EKillChoice /*kill*/)
{
    return nelo_rpc::SHostOptions::Recommended();
}
