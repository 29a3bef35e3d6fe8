#pragma once

#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Export.h>

#include <optional>
#include <string>
#include <utility>

namespace nelo_rpc
{

/// How a call ended. Since 0.1.
enum class ECallStatus
{
    Ok,           ///< with a result
    TimedOut,     ///< its time-out passed; if it was sent, the server may carry it out all the same
    NoServer,     ///< nobody has the server's name; the call was not carried out
    Refused,      ///< the server or the bus answered with an error
    Disconnected, ///< the bus, the server, the port or the proxy went before the result came
    TooLarge,     ///< the arguments do not fit into a message; they were not sent
    BadValue,     ///< an argument or the time-out cannot be sent, or the result is ill-formed or of another type
    CutOff        ///< the server answered without a result, as it does when it has killed the call
};

/// The status's name, "TimedOut" for instance. Since 0.1.
NELO_RPC_API char const* toString(ECallStatus status);

/// What became of a call: its result list, or why there is none. Since 0.1.
class NELO_RPC_API CCallResult
{
public:
    /// A call that ended with this list, which may be empty.
    explicit CCallResult(types::CValueList list);

    /// A call that failed.
    ///
    /// @param reason  for people; not empty.
    CCallResult(ECallStatus status, std::string reason);

    bool IsOk() const { return m_status == ECallStatus::Ok; }
    ECallStatus GetStatus() const { return m_status; }

    /// Why the call failed, for people; empty if it did not. It may be a text of the server's.
    std::string const& GetReason() const { return m_reason; }

    /// The result at index 0; empty if the call failed. It is empty too when a function that works on lists answers
    /// with an empty one, when the server has killed the call, and when it trusts its peers and the actor has no such
    /// function: on the wire these are one.
    types::CValueList const& GetList() const { return m_list; }

    /// The same, without a copy: the result then has an empty list.
    types::CValueList TakeList();

private:
    ECallStatus m_status;
    std::string m_reason;
    types::CValueList m_list;
};

/// The same for a typed function, whose value is there exactly if the status is Ok. Since 0.1.
template <class Value>
class CCallResultOf : public CCallResult
{
public:
    CCallResultOf(CCallResult result, std::optional<Value> value)
        : CCallResult(std::move(result)), m_value(std::move(value))
    {
    }

    /// A function without a result gives true.
    std::optional<Value> const& GetValue() const { return m_value; }

    /// The same, without a copy: the result then has none.
    std::optional<Value> TakeValue() { return std::exchange(m_value, std::nullopt); }

private:
    std::optional<Value> m_value;
};

} // namespace nelo_rpc
