#pragma once

#include <nelo_rpc/Export.h>

#include <iosfwd>

namespace nelo_rpc::types
{

/// An owned, NUL-terminated copy of a character string.
///
/// The text is reachable twice, as the owned copy (Get) and as a read-only pointer (GetConst). After
/// construction from a pointer, GetConst() is the caller's own pointer; after copy construction both are
/// the copy; assignment replaces only the owned copy. Since 0.1.
class NELO_RPC_API CCString
{
public:
    /// Copies `s`, which must not be null. GetConst() goes on pointing to `s` itself.
    CCString(char const* s);

    /// Makes one copy of the owned text, which both Get() and GetConst() of the new object point to.
    CCString(CCString const& o);

    /// Replaces the owned copy. GetConst() stays as it was: it dangles if it pointed to the old copy.
    /// Not for self-assignment, which reads the text after it has been freed.
    CCString& operator=(CCString const& o);

    ~CCString();

    /// The owned copy; lives until assignment or destruction.
    char* const& Get() const;

    /// The read-only pointer (see the class description for what it points to).
    char const* const& GetConst() const;

    /// A new copy of the owned text, to be released with free() by the caller.
    char* Strdup() const;

private:
    char* m_str;
    char const* m_constStr;
    unsigned int m_len;
};

/// Writes the owned text; a null one writes nothing and sets the stream's bad bit.
NELO_RPC_API std::ostream& operator<<(std::ostream& stream, CCString const& s);

} // namespace nelo_rpc::types
