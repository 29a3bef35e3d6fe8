#include <nelo_rpc/CValueList.h>

namespace nelo_rpc::types
{

std::string toString(CValueList const& list)
{
    std::string entries;
    for (auto const& [index, value] : list)
    {
        auto const reserved = RESERVED_KEY_NAMES.find(index);
        entries += reserved != RESERVED_KEY_NAMES.end() ? reserved->second : std::to_string(index);
        entries += " = (" + value->ToString() + ") | ";
    }
    return "{" + entries + "}";
}

std::string toString(char const* s)
{
    return s == nullptr ? std::string() : std::string(s);
}

} // namespace nelo_rpc::types
