#pragma once

#include "CGate.h"

#include <nelo_rpc/nelo_rpc.h>

#include <string>

/// Holds the handler of a kill up where it takes an actor off its callbacks.
class CSlowCallback : public nelo_rpc::ICallback
{
public:
    void AddActor(nelo_rpc::CActor*, std::string const&) override {}
    void RemoveActor(nelo_rpc::CActor*) override
    {
        removing.Open();
        release.Wait();
    }

    CGate removing;
    CGate release;
};
