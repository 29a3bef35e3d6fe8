#pragma once

#include "DbusPointers.h"
#include "WireValue.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace nelo_rpc::dbus
{

/// Lays a message out as it lies on the wire. The bus library's append functions rebuild the message's signature with
/// every argument; this takes about a sixth of their time.
class CMessageLayout
{
public:
    /// @param room  about how many bytes header and body will take.
    CMessageLayout(int type, bool wantsReply, std::size_t room);

    // The header's fields, in the order in which they shall stand there, and all of them before the first entry. A
    // field that is null is left out.
    void AddPath(char const* path);
    void AddInterface(char const* interface);
    void AddMember(char const* member);
    void AddDestination(char const* destination);
    void AddReplySerial(std::uint32_t serial);

    /// Ends the header. The signature is that of all entries to come; without any there is none.
    void EndHeader(std::string const& signature);

    void AddEntry(int index, SWireValue const& value);

    /// The message, without a serial; null if the bus library does not take it.
    MessagePointer Load();

private:
    void AddField(std::uint8_t code, char type);
    void AddText(std::uint8_t code, char type, char const* text);
    void Put(std::uint32_t number);
    void Put(char const* data, std::size_t size);
    void PutText(char const* data, std::size_t size);
    void Align(std::size_t to);
    void SetAt(std::size_t position, std::size_t number);

    std::string m_bytes;
    std::size_t m_bodyBegin = 0;
};

} // namespace nelo_rpc::dbus
