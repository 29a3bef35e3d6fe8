#include <nelo_rpc/ICallback.h>

namespace nelo_rpc
{

ICallback::~ICallback() = default;

} // namespace nelo_rpc
