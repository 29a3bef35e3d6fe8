// EXPECT: nelo_rpc/Awaiting.h needs coroutines: compile with -std=c++20 or later

#include <nelo_rpc/Awaiting.h>
