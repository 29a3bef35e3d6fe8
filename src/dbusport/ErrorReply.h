#pragma once

#include <nelo_rpc/Refusal.h>

#include <dbus/dbus.h>

#include <string>

namespace nelo_rpc::dbus
{

/// What an error reply carries.
struct SErrorReply
{
    std::string name;
    std::string text;
};

/// The error reply for a refusal. What the bus library would abort on, or a caller could not show, is replaced.
inline SErrorReply errorReplyFor(refusal::CRefusal const& refusal)
{
    constexpr std::size_t LONGEST_TEXT = 64 * 1024;
    std::string const& name = refusal.GetError();
    std::string const& text = refusal.GetCause();
    bool const isName = name.find('\0') == std::string::npos && dbus_validate_error_name(name.c_str(), nullptr);
    bool const isText = !text.empty() && text.size() <= LONGEST_TEXT && text.find('\0') == std::string::npos &&
                        dbus_validate_utf8(text.c_str(), nullptr);
    return {isName ? name : DBUS_ERROR_FAILED, isText ? text : "the call was refused"};
}

} // namespace nelo_rpc::dbus
