#pragma once

/// Marks what the shared library exports; everything else stays hidden.
#define NELO_RPC_API __attribute__((visibility("default")))
