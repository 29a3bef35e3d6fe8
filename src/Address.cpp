#include "Address.h"

#include <nelo_rpc/Protocol.h>
#include <nelo_rpc/Values.h>

#include <string>

namespace nelo_rpc::protocol
{

namespace
{

template <class T>
bool holds(types::CValueList const& list, int index)
{
    auto const entry = list.find(index);
    return entry != list.end() && types::hasType<T>(*entry->second);
}

} // namespace

char const* whyNotAddressed(types::CValueList const& list, bool isCall)
{
    if (!holds<int>(list, ACTOR_ID))
    {
        return "an integer should be at ACTOR_ID (-2)";
    }
    if (!holds<std::string>(list, METHOD_NAME))
    {
        return "a string should be at METHOD_NAME (-1)";
    }
    return isCall && !holds<std::string>(list, TYPE_NAME) ? "a string should be at TYPE_NAME (-4)" : nullptr;
}

} // namespace nelo_rpc::protocol
