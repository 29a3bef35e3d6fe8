#pragma once

#include "BusTest.h"

/// Options of a port that does not trust its peers, all else by default.
inline nelo_rpc::SPortOptions untrusted()
{
    nelo_rpc::SPortOptions options;
    options.peers = nelo_rpc::EPeers::Untrusted;
    return options;
}

/// The entries without which a call has no addressee.
inline void putAddress(DBusMessage* message)
{
    putString(message, -4, "Thing");
    putInt(message, -2, 1);
    putString(message, -1, "Do");
}

inline MessagePtr addressedCall(std::string const& destination)
{
    MessagePtr call = rawCall(destination);
    putAddress(call.get());
    return call;
}

/// How many error lines contain the part.
inline int countErrorsAbout(CLogCapture const& log, std::string const& part)
{
    auto const texts = log.Texts(ELevel::Error);
    return static_cast<int>(std::count_if(
        texts.begin(), texts.end(), [&](std::string const& text) { return text.find(part) != std::string::npos; }));
}

/// The name of an error reply; "" for anything else.
inline std::string errorNameOf(MessagePtr const& answer)
{
    bool const isError = answer != nullptr && dbus_message_get_type(answer.get()) == DBUS_MESSAGE_TYPE_ERROR;
    return isError ? textOf(dbus_message_get_error_name(answer.get())) : "";
}
