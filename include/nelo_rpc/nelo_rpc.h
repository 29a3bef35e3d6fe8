#pragma once

/// Everything public, from the ground up. A server needs CDbusPort and CRpcHost; a client needs CDbusPort, CRpcClient,
/// CCallbackDelivery and CActorProxy with its endpoints.

// Ground: what is exported, where log lines go, what the two sides agree on.
#include <nelo_rpc/Choices.h>
#include <nelo_rpc/Export.h>
#include <nelo_rpc/Log.h>
#include <nelo_rpc/Protocol.h>

// Values: what travels.
#include <nelo_rpc/CCString.h>
#include <nelo_rpc/CValue.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Values.h>

// Seams: typed functions as remotely callable ones, actor types that are declared once, and the transport with what a
// call may choose and how it ended.
#include <nelo_rpc/CCallOptions.h>
#include <nelo_rpc/CCallResult.h>
#include <nelo_rpc/CInterface.h>
#include <nelo_rpc/CRpcPort.h>
#include <nelo_rpc/FunctionAdapters.h>
#include <nelo_rpc/Refusal.h>

// Threads: workers, and what kills hung ones.
#include <nelo_rpc/CLoopThread.h>
#include <nelo_rpc/CThreadWatchdog.h>

// Server.
#include <nelo_rpc/CActor.h>
#include <nelo_rpc/CCallbackSender.h>
#include <nelo_rpc/CClientConnection.h>
#include <nelo_rpc/CRpcHost.h>
#include <nelo_rpc/HangReport.h>
#include <nelo_rpc/ICallback.h>
#include <nelo_rpc/RegisterInterface.h>

// Client.
#include <nelo_rpc/CActorProxy.h>
#include <nelo_rpc/CCallbackDelivery.h>
#include <nelo_rpc/CClientConnectionProxy.h>
#include <nelo_rpc/CProxyOf.h>
#include <nelo_rpc/CRpcClient.h>
#include <nelo_rpc/ProxyEndpoints.h>

// D-Bus: the port, its message bodies, and a port without a bus for tests.
#include <nelo_rpc/dbusport/CDbusPort.h>
#include <nelo_rpc/dbusport/CLocalPort.h>
#include <nelo_rpc/dbusport/DbusMarshalling.h>
