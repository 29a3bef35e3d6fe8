/// Input: instructions that build a message, so that what is tried gets past the bus library's own checks.
///
/// Beside the message goes a second opinion on it: a model of the protocol that sees the same arguments and says
/// whether they make a body.

#include "ReaderCheck.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace
{

class CInput
{
public:
    CInput(std::uint8_t const* data, std::size_t size) : m_data(data), m_size(size) {}

    bool IsAtEnd() const { return m_size == 0; }

    std::uint8_t Byte()
    {
        if (m_size == 0)
        {
            return 0;
        }
        --m_size;
        return *m_data++;
    }

    /// Mostly small, since the reserved indices and the tags are.
    std::int32_t Number()
    {
        std::uint8_t const first = Byte();
        if (first < 0xf0)
        {
            return first % 16 - 6;
        }
        std::uint32_t number = 0;
        for (int i = 0; i < 4; ++i)
        {
            number = number << 8 | Byte();
        }
        return static_cast<std::int32_t>(number);
    }

    std::string Text(std::size_t longest)
    {
        std::string text;
        for (std::size_t length = Byte() % (longest + 1); text.size() < length && !IsAtEnd();)
        {
            text += static_cast<char>(Byte());
        }
        return text;
    }

private:
    std::uint8_t const* m_data;
    std::size_t m_size;
};

/// Whether arguments, one after the other, make a body: index, tag, and what the tag promises.
class CModel
{
public:
    void SeeInt(std::int32_t value)
    {
        switch (m_state)
        {
        case EState::Index:
            m_state = EState::Tag;
            break;
        case EState::Tag:
            SeeTag(value);
            break;
        case EState::Int:
        case EState::Kind:
            m_state = EState::Index;
            break;
        default:
            m_state = EState::Broken;
        }
    }

    void SeeText() { m_state = m_state == EState::Text ? EState::Index : EState::Broken; }
    void SeeBytes() { m_state = m_state == EState::Bytes ? EState::Kind : EState::Broken; }
    void SeeOther() { m_state = EState::Broken; }

    bool IsBody() const { return m_state == EState::Index; }

private:
    enum class EState
    {
        Index,
        Tag,
        Int,
        Text,
        Bytes,
        Kind,
        Broken
    };

    void SeeTag(std::int32_t tag)
    {
        constexpr EState AFTER_TAG[] = {EState::Int, EState::Text, EState::Text, EState::Bytes};
        m_state = tag >= 0 && tag < 4 ? AFTER_TAG[tag] : EState::Broken;
    }

    EState m_state = EState::Index;
};

/// Appends what the input says.
class CBuilder
{
public:
    CBuilder(DBusMessage* message, CInput& input) : m_input(input) { dbus_message_iter_init_append(message, &m_iter); }

    /// @return whether the arguments make a body.
    bool Build()
    {
        // Each adds at most five characters to the signature, which has 255: beyond, the bus library stops the process.
        for (int arguments = 0; arguments < 24 && !m_input.IsAtEnd(); ++arguments)
        {
            Append();
        }
        return m_model.IsBody();
    }

private:
    void Append()
    {
        switch (m_input.Byte() % 12)
        {
        case 0:
        case 1:
        case 2:
            AppendInt(m_input.Number());
            break;
        case 3:
            AppendText(m_input.Text(40));
            break;
        case 4:
            AppendBytes(m_input.Text(200));
            break;
        case 5:
            AppendEntryOfText();
            break;
        case 6:
            AppendEntryOfBytes();
            break;
        case 7:
            AppendOtherBasic();
            break;
        case 8:
            AppendContainer(DBUS_TYPE_VARIANT, "i");
            break;
        case 9:
            AppendContainer(DBUS_TYPE_STRUCT, nullptr);
            break;
        case 10:
            AppendContainer(DBUS_TYPE_ARRAY, "i");
            break;
        default:
            AppendEmptyArray();
        }
    }

    void AppendInt(std::int32_t value)
    {
        dbus_message_iter_append_basic(&m_iter, DBUS_TYPE_INT32, &value);
        m_model.SeeInt(value);
    }

    void AppendText(std::string const& text)
    {
        // The bus library stops a process that gives it such text to send; from the bus none comes.
        char const* const value = dbus_validate_utf8(text.c_str(), nullptr) ? text.c_str() : "";
        dbus_message_iter_append_basic(&m_iter, DBUS_TYPE_STRING, &value);
        m_model.SeeText();
    }

    void AppendBytes(std::string const& bytes)
    {
        char const* const data = bytes.data();
        DBusMessageIter elements;
        dbus_message_iter_open_container(&m_iter, DBUS_TYPE_ARRAY, "y", &elements);
        dbus_message_iter_append_fixed_array(&elements, DBUS_TYPE_BYTE, &data, static_cast<int>(bytes.size()));
        dbus_message_iter_close_container(&m_iter, &elements);
        m_model.SeeBytes();
    }

    void AppendEntryOfText()
    {
        AppendInt(m_input.Number());
        AppendInt(1 + m_input.Byte() % 2);
        AppendText(m_input.Text(20));
    }

    void AppendEntryOfBytes()
    {
        AppendInt(m_input.Number());
        AppendInt(3);
        AppendBytes(m_input.Text(12));
        AppendInt(m_input.Number());
    }

    void AppendOtherBasic()
    {
        constexpr int TYPES[] = {DBUS_TYPE_BYTE,  DBUS_TYPE_BOOLEAN, DBUS_TYPE_INT16,  DBUS_TYPE_UINT16,
                                 DBUS_TYPE_INT64, DBUS_TYPE_UINT64,  DBUS_TYPE_DOUBLE, DBUS_TYPE_UINT32};
        constexpr int COUNT = sizeof(TYPES) / sizeof(TYPES[0]);
        std::uint64_t const one = 1; // right for each of them on a little-endian machine
        std::uint8_t const which = m_input.Byte();
        if (which % (COUNT + 2) < COUNT)
        {
            dbus_message_iter_append_basic(&m_iter, TYPES[which % (COUNT + 2)], &one);
        }
        else
        {
            char const* const text = which % 2 == 0 ? "/a/b" : "ai";
            int const type = which % 2 == 0 ? DBUS_TYPE_OBJECT_PATH : DBUS_TYPE_SIGNATURE;
            dbus_message_iter_append_basic(&m_iter, type, &text);
        }
        m_model.SeeOther();
    }

    void AppendContainer(int type, char const* contents)
    {
        std::int32_t const value = m_input.Number();
        DBusMessageIter inside;
        dbus_message_iter_open_container(&m_iter, type, contents, &inside);
        dbus_message_iter_append_basic(&inside, DBUS_TYPE_INT32, &value);
        dbus_message_iter_close_container(&m_iter, &inside);
        m_model.SeeOther();
    }

    void AppendEmptyArray()
    {
        constexpr char const* ELEMENTS[] = {"y", "s", "ay", "(ii)", "{is}", "v", "b", "n"};
        std::uint8_t const which = m_input.Byte() % 8;
        DBusMessageIter elements;
        dbus_message_iter_open_container(&m_iter, DBUS_TYPE_ARRAY, ELEMENTS[which], &elements);
        dbus_message_iter_close_container(&m_iter, &elements);
        if (which == 0)
        {
            m_model.SeeBytes();
        }
        else
        {
            m_model.SeeOther();
        }
    }

    CInput& m_input;
    DBusMessageIter m_iter;
    CModel m_model;
};

DBusMessage* makeMessage(std::uint8_t shape)
{
    DBusMessage* const message = dbus_message_new(1 + shape % 4);
    dbus_message_set_path(message, "/org/trelin/nelo_rpc");
    dbus_message_set_interface(message, shape & 0x10 ? "org.trelin.other" : "org.trelin.nelo_rpc.Event");
    dbus_message_set_member(message, shape & 0x20 ? "Other" : "Call");
    if (shape & 0x40)
    {
        dbus_message_set_interface(message, nullptr);
    }
    return message;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    CInput input(data, size);
    DBusMessage* const message = makeMessage(input.Byte());
    bool const isBody = CBuilder(message, input).Build();
    if (fuzz::checkReader(message) != isBody)
    {
        std::fprintf(stderr, "broken: the reader and the model differ, the model says %d\n", isBody);
        std::abort();
    }
    dbus_message_unref(message);
    return 0;
}
