#include <nelo_rpc/CCString.h>

#include <cstdlib>
#include <cstring>
#include <ostream>

namespace nelo_rpc::types
{

CCString::CCString(char const* s) : m_str(::strdup(s)), m_constStr(s), m_len(static_cast<unsigned int>(std::strlen(s)))
{
}

CCString::CCString(CCString const& o) : m_str(::strdup(o.m_str)), m_constStr(m_str), m_len(o.m_len) {}

CCString& CCString::operator=(CCString const& o)
{
    std::free(m_str);
    m_str = ::strndup(o.m_str, o.m_len + 1);
    m_len = o.m_len;
    return *this;
}

CCString::~CCString()
{
    std::free(m_str);
}

char* const& CCString::Get() const
{
    return m_str;
}

char const* const& CCString::GetConst() const
{
    return m_constStr;
}

char* CCString::Strdup() const
{
    return ::strdup(m_str);
}

std::ostream& operator<<(std::ostream& stream, CCString const& s)
{
    return stream << s.Get(); // sets the bad bit for null
}

} // namespace nelo_rpc::types
