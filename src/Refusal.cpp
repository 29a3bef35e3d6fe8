#include <nelo_rpc/Refusal.h>

#include <memory>
#include <utility>

namespace nelo_rpc::refusal
{

CRefusal::CRefusal(std::string error, std::string cause) : m_error(std::move(error)), m_cause(std::move(cause)) {}

CRefusal::~CRefusal() = default;

std::string CRefusal::ToString() const
{
    return "CRefusal(" + m_error + ") = " + m_cause;
}

std::string const& CRefusal::GetError() const
{
    return m_error;
}

std::string const& CRefusal::GetCause() const
{
    return m_cause;
}

types::CValueList make(std::string const& error, std::string const& cause)
{
    types::CValueList list;
    list[INDEX] = std::make_shared<CRefusal>(error, cause);
    return list;
}

CRefusal const* find(types::CValueList const& list)
{
    auto const entry = list.find(INDEX);
    return entry == list.end() ? nullptr : dynamic_cast<CRefusal const*>(entry->second.get());
}

} // namespace nelo_rpc::refusal
