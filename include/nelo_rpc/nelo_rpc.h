#pragma once

/// Everything public, from the ground up. A server needs CDbusPort and CRpcHost; a client needs CDbusPort, CRpcClient,
/// CCallbackDelivery and CActorProxy with its endpoints.

// Ground: what is exported, where log lines go, what the two sides agree on.
#include <nelo_rpc/Export.h>
#include <nelo_rpc/Log.h>






