#include <nelo_rpc/CCallResult.h>

namespace nelo_rpc
{

char const* toString(ECallStatus status)
{
    switch (status)
    {
    case ECallStatus::Ok:
        return "Ok";
    case ECallStatus::TimedOut:
        return "TimedOut";
    case ECallStatus::NoServer:
        return "NoServer";
    case ECallStatus::Refused:
        return "Refused";
    case ECallStatus::Disconnected:
        return "Disconnected";
    case ECallStatus::TooLarge:
        return "TooLarge";
    case ECallStatus::BadValue:
        return "BadValue";
    case ECallStatus::CutOff:
        return "CutOff";
    }
    return "?";
}

CCallResult::CCallResult(types::CValueList list) : m_status(ECallStatus::Ok), m_list(std::move(list)) {}

CCallResult::CCallResult(ECallStatus status, std::string reason) : m_status(status), m_reason(std::move(reason)) {}

types::CValueList CCallResult::TakeList()
{
    return std::exchange(m_list, {});
}

} // namespace nelo_rpc
