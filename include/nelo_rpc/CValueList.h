#pragma once

#include <nelo_rpc/CValue.h>
#include <nelo_rpc/Protocol.h>

#include <map>
#include <memory>
#include <string>

namespace nelo_rpc::types
{

/// Arguments, results and callback payloads: an ordered map from index to value.
///
/// 0, 1, 2, ... carry arguments, a function's result stands at 0; negative indices are reserved. Iteration is
/// in ascending index order. A copy shares the values. A list has no lock: it is built and read by one thread
/// at a time and crosses threads by copy. A null pointer in a list is not allowed. Since 0.1.
class CValueList : public std::map<int, std::shared_ptr<CValue>>
{
public:
    using std::map<int, std::shared_ptr<CValue>>::map;
};

/// The list as text: "{", for each entry its index or reserved name + " = (" + value + ") | ", "}".
NELO_RPC_API std::string toString(CValueList const& list);

/// The text, or an empty string for null.
NELO_RPC_API std::string toString(char const* s);

} // namespace nelo_rpc::types
