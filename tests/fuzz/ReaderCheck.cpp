#include "ReaderCheck.h"

#include "../../src/dbusport/MessageCheck.h"

#include <nelo_rpc/Log.h>
#include <nelo_rpc/Values.h>
#include <nelo_rpc/dbusport/DbusMarshalling.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace fuzz
{

namespace
{

using nelo_rpc::types::CValueList;

struct SUnref
{
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};

void require(bool holds, char const* what)
{
    if (!holds)
    {
        std::fprintf(stderr, "broken: %s\n", what);
        std::abort();
    }
}

/// Two entries with one index become one, so it may take a shorter body than the one that was read.
void checkThatItTravelsAgain(CValueList const& list)
{
    if (!nelo_rpc::dbus::whyNotSendable(list).empty())
    {
        return;
    }
    std::unique_ptr<DBusMessage, SUnref> const again(nelo_rpc::dbus::valueListToCallback("a.b", list));
    CValueList reread;
    require(nelo_rpc::dbus::readValueList(again.get(), reread).empty(), "what was read can be read again");
    require(nelo_rpc::types::toString(reread) == nelo_rpc::types::toString(list), "and is the same then");
}

} // namespace

bool checkReader(DBusMessage* message)
{
    CValueList list;
    std::string const cause = nelo_rpc::dbus::readValueList(message, list);
    require(cause.empty() || list.empty(), "an ill-formed body gives nothing");
    require(cause.empty() || dbus_validate_utf8(cause.c_str(), nullptr), "a cause can be sent in an error reply");
    checkThatItTravelsAgain(list);

    CValueList checked;
    auto const objection = nelo_rpc::dbus::objectionTo(message, checked);
    require(objection.error == nullptr || dbus_validate_error_name(objection.error, nullptr), "an error has a name");
    require((objection.error == nullptr) == objection.cause.empty(), "an objection has a cause");
    require(objection.error != nullptr || cause.empty(), "an ill-formed body is objected to");
    return cause.empty();
}

void setUp()
{
    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Fatal);
    nelo_rpc::log::SetSink(
        [](nelo_rpc::log::ELevel, std::string const& line) { std::fprintf(stderr, "%s\n", line.c_str()); });
}

} // namespace fuzz
