#include "WireMessage.h"

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace
{

/// Reads the items of a message one by one, each at the place that its alignment gives it.
class CReader
{
public:
    explicit CReader(std::string const& bytes) : m_bytes(bytes) {}

    std::size_t Position() const { return m_position; }

    void Align(std::size_t alignment)
    {
        while (m_position % alignment != 0)
        {
            if (Byte() != 0)
            {
                throw std::runtime_error("padding is not zero");
            }
        }
    }

    unsigned char Byte()
    {
        if (m_position >= m_bytes.size())
        {
            throw std::runtime_error("message is too short");
        }
        return static_cast<unsigned char>(m_bytes[m_position++]);
    }

    std::uint32_t Number()
    {
        Align(4);
        std::uint32_t number = 0;
        for (unsigned shift = 0; shift < 32; shift += 8)
        {
            number |= static_cast<std::uint32_t>(Byte()) << shift;
        }
        return number;
    }

    std::string Text(std::size_t length)
    {
        std::string text;
        for (std::size_t i = 0; i < length; ++i)
        {
            text += static_cast<char>(Byte());
        }
        if (Byte() != 0)
        {
            throw std::runtime_error("text does not end in a zero byte");
        }
        return text;
    }

    std::string Rest() { return m_bytes.substr(m_position); }

private:
    std::string const& m_bytes;
    std::size_t m_position = 0;
};

/// The value of a header field, which stands behind its own signature.
std::string fieldValue(CReader& reader)
{
    std::string const signature = reader.Text(reader.Byte());
    if (signature == "s" || signature == "o")
    {
        std::uint32_t const length = reader.Number();
        return reader.Text(length);
    }
    if (signature == "g")
    {
        return reader.Text(reader.Byte());
    }
    if (signature == "u")
    {
        return std::to_string(reader.Number());
    }
    throw std::runtime_error("header field of type " + signature);
}

int hexDigit(char c)
{
    std::string const digits = "0123456789abcdef";
    auto const digit = digits.find(c);
    if (digit == std::string::npos)
    {
        throw std::runtime_error(std::string("not a hexadecimal digit: ") + c);
    }
    return static_cast<int>(digit);
}

std::string bytesOfLine(std::string const& line)
{
    std::string bytes;
    for (std::size_t i = 0; i < line.size() && line[i] != '#'; ++i)
    {
        if (line[i] == '"')
        {
            auto const end = line.find('"', i + 1);
            bytes += line.substr(i + 1, end - i - 1);
            i = end;
        }
        else if (line[i] != ' ')
        {
            bytes += static_cast<char>(hexDigit(line[i]) * 16 + hexDigit(line.at(i + 1)));
            ++i;
        }
    }
    return bytes;
}

} // namespace

SWireMessage SWireMessage::Parse(std::string const& bytes)
{
    CReader reader(bytes);
    if (reader.Byte() != 'l')
    {
        throw std::runtime_error("not little endian");
    }
    SWireMessage message;
    message.type = reader.Byte();
    message.flags = reader.Byte();
    if (reader.Byte() != 1)
    {
        throw std::runtime_error("not of protocol version 1");
    }
    std::uint32_t const bodyLength = reader.Number();
    message.serial = reader.Number();
    std::uint32_t const fieldsLength = reader.Number();

    std::size_t const fieldsEnd = reader.Position() + fieldsLength;
    while (reader.Position() < fieldsEnd)
    {
        reader.Align(8);
        int const code = reader.Byte();
        message.fields[code] = fieldValue(reader);
    }
    if (reader.Position() != fieldsEnd)
    {
        throw std::runtime_error("header fields are longer than they say");
    }
    reader.Align(8);
    message.body = reader.Rest();
    if (message.body.size() != bodyLength)
    {
        throw std::runtime_error("body is not as long as the header says");
    }
    return message;
}

std::string goldenBytes(std::string const& name)
{
    std::ifstream file(std::filesystem::path(NELO_RPC_GOLDEN_DIR) / name);
    if (!file)
    {
        throw std::runtime_error("no such file: " + name);
    }
    std::string bytes;
    for (std::string line; std::getline(file, line);)
    {
        bytes += bytesOfLine(line);
    }
    return bytes;
}

std::string hex(std::string const& bytes)
{
    std::string const digits = "0123456789abcdef";
    std::string text;
    for (char const c : bytes)
    {
        auto const byte = static_cast<unsigned char>(c);
        text += text.empty() ? "" : " ";
        text += digits[byte / 16U];
        text += digits[byte % 16U];
    }
    return text;
}
