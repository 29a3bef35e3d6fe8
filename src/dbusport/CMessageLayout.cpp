#include "CMessageLayout.h"

#include <climits>
#include <cstring>

namespace nelo_rpc::dbus
{

namespace
{

constexpr char BYTE_ORDER_OF_MACHINE = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 'l' : 'B';

constexpr std::size_t BODY_LENGTH_AT = 4;
constexpr std::size_t FIELDS_LENGTH_AT = 12;
constexpr std::size_t FIELDS_AT = 16;
constexpr std::size_t FIELD_ALIGNMENT = 8;

/// The bus library loads no message without a serial.
constexpr std::uint32_t PRELIMINARY_SERIAL = 1;

} // namespace

CMessageLayout::CMessageLayout(int type, bool wantsReply, std::size_t room)
{
    m_bytes.reserve(room);
    m_bytes += BYTE_ORDER_OF_MACHINE;
    m_bytes += static_cast<char>(type);
    m_bytes += static_cast<char>(wantsReply ? 0 : DBUS_HEADER_FLAG_NO_REPLY_EXPECTED);
    m_bytes += static_cast<char>(DBUS_MAJOR_PROTOCOL_VERSION);
    Put(0U); // the body's length, known later
    Put(PRELIMINARY_SERIAL);
    Put(0U); // the fields' length
}

void CMessageLayout::AddPath(char const* path)
{
    AddText(DBUS_HEADER_FIELD_PATH, DBUS_TYPE_OBJECT_PATH, path);
}

void CMessageLayout::AddInterface(char const* interface)
{
    AddText(DBUS_HEADER_FIELD_INTERFACE, DBUS_TYPE_STRING, interface);
}

void CMessageLayout::AddMember(char const* member)
{
    AddText(DBUS_HEADER_FIELD_MEMBER, DBUS_TYPE_STRING, member);
}

void CMessageLayout::AddDestination(char const* destination)
{
    AddText(DBUS_HEADER_FIELD_DESTINATION, DBUS_TYPE_STRING, destination);
}

void CMessageLayout::AddReplySerial(std::uint32_t serial)
{
    AddField(DBUS_HEADER_FIELD_REPLY_SERIAL, DBUS_TYPE_UINT32);
    Put(serial);
}

void CMessageLayout::EndHeader(std::string const& signature)
{
    if (!signature.empty())
    {
        AddField(DBUS_HEADER_FIELD_SIGNATURE, DBUS_TYPE_SIGNATURE);
        m_bytes += static_cast<char>(signature.size());
        Put(signature.c_str(), signature.size() + 1);
    }
    SetAt(FIELDS_LENGTH_AT, m_bytes.size() - FIELDS_AT);
    Align(FIELD_ALIGNMENT);
    m_bodyBegin = m_bytes.size();
}

void CMessageLayout::AddEntry(int index, SWireValue const& value)
{
    Align(sizeof(std::uint32_t));
    Put(static_cast<std::uint32_t>(index));
    Put(static_cast<std::uint32_t>(value.tag));
    if (value.IsText())
    {
        PutText(value.data, value.size);
        return;
    }
    if (value.tag == TAG_BINARY)
    {
        Put(static_cast<std::uint32_t>(value.size));
        Put(value.data, value.size);
        Align(sizeof(std::uint32_t));
    }
    Put(static_cast<std::uint32_t>(value.number));
}

MessagePointer CMessageLayout::Load()
{
    SetAt(BODY_LENGTH_AT, m_bytes.size() - m_bodyBegin);
    if (m_bytes.size() > INT_MAX)
    {
        return nullptr;
    }
    MessagePointer message(dbus_message_demarshal(m_bytes.data(), static_cast<int>(m_bytes.size()), nullptr));
    if (message != nullptr)
    {
        dbus_message_set_serial(message.get(), 0);
    }
    return message;
}

void CMessageLayout::AddField(std::uint8_t code, char type)
{
    Align(FIELD_ALIGNMENT);
    m_bytes += static_cast<char>(code);
    m_bytes += '\1'; // the length of the value's signature
    m_bytes += type;
    m_bytes += '\0';
}

void CMessageLayout::AddText(std::uint8_t code, char type, char const* text)
{
    if (text != nullptr)
    {
        AddField(code, type);
        PutText(text, std::strlen(text));
    }
}

void CMessageLayout::Put(std::uint32_t number)
{
    Put(reinterpret_cast<char const*>(&number), sizeof(number));
}

void CMessageLayout::Put(char const* data, std::size_t size)
{
    m_bytes.append(data, size);
}

void CMessageLayout::PutText(char const* data, std::size_t size)
{
    Put(static_cast<std::uint32_t>(size));
    Put(data, size + 1);
}

void CMessageLayout::Align(std::size_t to)
{
    m_bytes.append((to - m_bytes.size() % to) % to, '\0');
}

void CMessageLayout::SetAt(std::size_t position, std::size_t number)
{
    auto const wire = static_cast<std::uint32_t>(number);
    std::memcpy(m_bytes.data() + position, &wire, sizeof(wire));
}

} // namespace nelo_rpc::dbus
