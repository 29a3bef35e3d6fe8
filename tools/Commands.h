#pragma once

#include "Failure.h"
#include "Options.h"

/// The commands, each in a file of its own. They throw CFailure for everything but success.
void listServers(SOptions const& options);
void callFunction(SOptions const& options);
void watchCallback(SOptions const& options);
void monitorTraffic(SOptions const& options);
void pingServer(SOptions const& options);
