#include <nelo_rpc/FunctionAdapters.h>
#include <nelo_rpc/Values.h>

#include <cstdint>
#include <string>
#include <vector>

enum class EColour
{
    Red
};

void takesEverything(int, unsigned, bool, float, double, EColour, std::string const&, char const*,
                     nelo_rpc::types::CCString const&, std::vector<std::uint8_t> const&);

auto const g_adapted = nelo_rpc::makeValueListFunction(&takesEverything);
auto const g_packed = nelo_rpc::types::packValue(EColour::Red);
