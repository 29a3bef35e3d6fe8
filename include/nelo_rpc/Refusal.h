#pragma once

#include <nelo_rpc/CValue.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Export.h>

#include <limits>
#include <string>

/// How a call is answered with an error instead of a result: a list that a reply function takes like any other, and
/// that a port turns into an error reply.
namespace nelo_rpc::refusal
{

/// Where a refusal stands in its list; the entry is never sent.
constexpr int INDEX = std::numeric_limits<int>::min();

/// Names of errors, as the bus knows them.
constexpr char const* INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr char const* UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod";
constexpr char const* UNKNOWN_OBJECT = "org.freedesktop.DBus.Error.UnknownObject";
constexpr char const* UNKNOWN_INTERFACE = "org.freedesktop.DBus.Error.UnknownInterface";
constexpr char const* ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied";
constexpr char const* LIMITS_EXCEEDED = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr char const* FAILED = "org.freedesktop.DBus.Error.Failed";

/// The entry of a list that refuses a call. Since 0.1.
class NELO_RPC_API CRefusal : public types::CValue
{
public:
    CRefusal(std::string error, std::string cause);
    ~CRefusal() override;

    /// "CRefusal(" + error + ") = " + cause.
    std::string ToString() const override;

    std::string const& GetError() const;
    std::string const& GetCause() const;

private:
    std::string const m_error;
    std::string const m_cause;
};

/// A list that refuses a call. Since 0.1.
///
/// @param error  the error's name; a valid error name of the bus.
/// @param cause  what is wrong, for people; valid UTF-8.
NELO_RPC_API types::CValueList make(std::string const& error, std::string const& cause);

/// The refusal in a list, or null; lives as long as the list. Since 0.1.
NELO_RPC_API CRefusal const* find(types::CValueList const& list);

} // namespace nelo_rpc::refusal
