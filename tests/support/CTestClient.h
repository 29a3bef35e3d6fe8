#pragma once

#include "CPrivateBus.h"

#include <nelo_rpc/nelo_rpc.h>

#include <string>

/// A client of this process, with its port and the delivery of its callbacks.
class CTestClient
{
public:
    explicit CTestClient(std::string const& server, nelo_rpc::SPortOptions const& options = {})
        : m_port(CPrivateBus::UniqueName().c_str(), server.c_str(), false, options),
          m_client(m_port),
          m_delivery(m_port)
    {
    }

    nelo_rpc::CRpcClient& Get() { return m_client; }

private:
    nelo_rpc::CDbusPort m_port;
    nelo_rpc::CRpcClient m_client;
    nelo_rpc::CCallbackDelivery m_delivery;
};
