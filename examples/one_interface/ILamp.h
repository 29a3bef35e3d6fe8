#pragma once

#include <nelo_rpc/nelo_rpc.h>

#include <string>

/// What a lamp can do, said once. The server implements it, the client calls it, and the compiler compares both.
class ILamp
{
public:
    virtual ~ILamp() = default;

    /// False if there is no such brightness.
    virtual bool Dim(int percent) = 0;
    virtual void SetLabel(std::string const& label) = 0;
    virtual std::string Describe() const = 0;

    nelo_rpc::CCallbackSender<int> OnDimmed;

    static constexpr nelo_rpc::CInterface RPC{
        "Lamp", nelo_rpc::SFunction<&ILamp::Dim>{"Dim"}, nelo_rpc::SFunction<&ILamp::SetLabel>{"SetLabel"},
        nelo_rpc::SFunction<&ILamp::Describe>{"Describe"}, nelo_rpc::SCallback<&ILamp::OnDimmed>{"OnDimmed"}};
};
