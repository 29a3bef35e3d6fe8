#pragma once

#include <nelo_rpc/Values.h>

#include <memory>

/// A list with every class of value that travels, as a call or a callback might look. The scripts of this folder
/// expect it argument by argument.
inline nelo_rpc::types::CValueList listOfEveryClass()
{
    using namespace nelo_rpc::types;
    return CValueList{{-4, makeValue<std::string>("Thermostat")},
                      {-2, makeValue<int>(1)},
                      {-1, makeValue<std::string>("SetTarget")},
                      {0, makeValue<int>(-7)},
                      {1, makeValue<std::string>("Gr\xC3\xBC\xC3\x9F")},
                      {2, makeValue<char const*>("c text")},
                      {3, std::make_shared<CBinaryValue>("\x00\x01\xFF", 3, 9)},
                      {4, packValue(4000000000U)},
                      {5, std::make_shared<CBinaryValue>(nullptr, 0, binarykind::Bool)}};
}
