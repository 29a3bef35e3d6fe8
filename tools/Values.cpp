#include "Values.h"

#include "Failure.h"
#include "Options.h"

#include <nelo_rpc/Values.h>
#include <nelo_rpc/dbusport/DbusMarshalling.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <system_error>

using namespace nelo_rpc::types;

namespace
{

constexpr std::size_t MAX_TEXT = 200; // bytes of a value that a line shows

using ValuePointer = std::shared_ptr<CValue>;

[[noreturn]] void failOnValue(std::string const& text, std::string const& type, std::string const& wanted)
{
    throw CFailure(EExit::Usage, "'" + text + "' is no " + type + ": " + wanted);
}

template <class T>
bool readNumber(std::string const& text, T& number)
{
    char const* const end = text.data() + text.size();
    auto const read = std::from_chars(text.data(), end, number);
    return read.ec == std::errc() && read.ptr == end;
}

template <class T>
T numberFrom(std::string const& text, std::string const& type, std::string const& wanted)
{
    T number{};
    if (!readNumber(text, number))
    {
        failOnValue(text, type, wanted);
    }
    return number;
}

bool boolFrom(std::string const& text)
{
    if (text != "true" && text != "false")
    {
        failOnValue(text, "bool", "true or false is wanted");
    }
    return text == "true";
}

std::vector<std::uint8_t> bytesFrom(std::string const& text)
{
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < text.size(); i += 2)
    {
        std::uint8_t byte = 0;
        char const* const digits = text.data() + i;
        if (i + 2 > text.size() || std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2)
        {
            failOnValue(text, "byte block", "two hexadecimal digits for each byte are wanted, as in bytes:00ff");
        }
        bytes.push_back(byte);
    }
    return bytes;
}

ValuePointer enumFrom(std::string const& text)
{
    auto const number = numberFrom<std::int32_t>(text, "enumeration", "its number is wanted, as in enum:3");
    return std::make_shared<CBinaryValue>(&number, static_cast<unsigned int>(sizeof(number)), binarykind::Enum);
}

ValuePointer valueOf(std::string const& type, std::string const& text)
{
    if (type == "int")
    {
        return packValue(numberFrom<int>(text, "int", "a whole number of 32 bits is wanted"));
    }
    if (type == "unsigned")
    {
        return packValue(numberFrom<unsigned int>(text, "unsigned", "a whole number from 0 to 4294967295 is wanted"));
    }
    if (type == "double")
    {
        return packValue(numberFrom<double>(text, "double", "a number is wanted"));
    }
    if (type == "float")
    {
        return packValue(numberFrom<float>(text, "float", "a number is wanted"));
    }
    if (type == "bool")
    {
        return packValue(boolFrom(text));
    }
    if (type == "string")
    {
        return packValue(text);
    }
    if (type == "cstring")
    {
        return makeValue<CCString>(CCString(text.c_str()));
    }
    if (type == "bytes")
    {
        return packValue(bytesFrom(text));
    }
    return type == "enum" ? enumFrom(text) : nullptr;
}

ValuePointer guess(std::string const& word)
{
    int whole = 0;
    if (readNumber(word, whole))
    {
        return packValue(whole);
    }
    bool const looksLikeNumber = word.find_first_not_of("+-.0123456789eE") == std::string::npos;
    double number = 0;
    if (looksLikeNumber && readNumber(word, number))
    {
        // A whole number that no int can hold would silently become another type than it looks like.
        if (word.find_first_of(".eE") == std::string::npos)
        {
            failOnValue(word, "int", "it is too large; say which type is meant, as in unsigned:" + word);
        }
        return packValue(number);
    }
    return word == "true" || word == "false" ? packValue(word == "true") : packValue(word);
}

template <class T>
std::string numberText(T number)
{
    char buffer[64];
    auto const end = std::to_chars(buffer, buffer + sizeof(buffer), number).ptr;
    return std::string(buffer, end);
}

std::string hex(char const* bytes, std::size_t size)
{
    std::string text;
    for (std::size_t i = 0; i < size; ++i)
    {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned char>(bytes[i]));
        text += digits;
    }
    return text;
}

/// A value taken apart: which type it is in the command line's words, and its text.
struct SShown
{
    enum class EForm
    {
        Number,
        Bool,
        Text,
        Bytes
    };

    std::string type;
    EForm form;
    std::string text;
};

template <class T>
T readFrom(CBinaryValue const& value)
{
    T number;
    std::memcpy(&number, value.GetData(), sizeof(number)); // what the kind needs is there: see sizeOfKind()
    return number;
}

unsigned int sizeOfKind(int kind)
{
    switch (kind)
    {
    case binarykind::Unsigned:
    case binarykind::Float:
    case binarykind::Enum:
        return 4;
    case binarykind::Double:
        return 8;
    case binarykind::Bool:
        return 1;
    default:
        return 0;
    }
}

SShown shownBinary(CBinaryValue const& value)
{
    int const kind = value.GetKind();
    if (value.GetSize() >= sizeOfKind(kind))
    {
        switch (kind)
        {
        case binarykind::Unsigned:
            return {"unsigned", SShown::EForm::Number, numberText(readFrom<std::uint32_t>(value))};
        case binarykind::Float:
            return {"float", SShown::EForm::Number, numberText(readFrom<float>(value))};
        case binarykind::Double:
            return {"double", SShown::EForm::Number, numberText(readFrom<double>(value))};
        case binarykind::Bool:
            return {"bool", SShown::EForm::Bool, readFrom<std::uint8_t>(value) != 0 ? "true" : "false"};
        case binarykind::Enum:
            return {"enum", SShown::EForm::Number, numberText(readFrom<std::int32_t>(value))};
        default:
            break;
        }
    }
    std::string const type = kind == binarykind::Opaque ? "bytes" : "binary" + std::to_string(kind);
    return {type, SShown::EForm::Bytes, hex(value.GetData(), value.GetSize())};
}

SShown shown(CValue& value)
{
    if (hasType<int>(value))
    {
        return {"int", SShown::EForm::Number, numberText(extract<int>(value))};
    }
    if (hasType<std::string>(value))
    {
        return {"string", SShown::EForm::Text, extract<std::string>(value)};
    }
    if (hasType<CCString>(value))
    {
        return {"cstring", SShown::EForm::Text, extract<CCString>(value).Get()};
    }
    if (auto const* const binary = dynamic_cast<CBinaryValue*>(&value))
    {
        return shownBinary(*binary);
    }
    return {"unknown", SShown::EForm::Text, value.ToString()};
}

/// Not in the middle of a character.
std::string cut(std::string const& text)
{
    if (text.size() <= MAX_TEXT)
    {
        return text;
    }
    std::size_t end = MAX_TEXT;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0U) == 0x80)
    {
        --end;
    }
    return text.substr(0, end) + "...";
}

std::string escaped(char c)
{
    char text[8];
    std::snprintf(text, sizeof(text), "\\u%04x", static_cast<unsigned char>(c));
    return text;
}

/// Infinities and "not a number" have no number in JSON.
bool isJsonNumber(std::string const& text)
{
    return text.find_first_of("in") == std::string::npos;
}

} // namespace

std::shared_ptr<CValue> parseArgument(std::string const& word)
{
    static std::vector<std::string> const types = {"int",    "unsigned", "bool",  "float", "double",
                                                   "string", "cstring",  "bytes", "enum"};
    std::size_t const colon = word.find(':');
    if (colon == std::string::npos)
    {
        return guess(word);
    }
    std::string const type = word.substr(0, colon);
    if (ValuePointer value = valueOf(type, word.substr(colon + 1)))
    {
        return value;
    }
    throw CFailure(EExit::Usage, "unknown type '" + type + "' in '" + word + "'" + suggestion(type, types) +
                                     " (types: int unsigned bool float double string cstring bytes enum; a text with "
                                     "a colon is written string:" +
                                     word + ")");
}

CValueList parseArguments(std::vector<std::string> const& words)
{
    CValueList list;
    int index = 0;
    for (std::string const& word : words)
    {
        list[index++] = parseArgument(word);
    }
    std::string const why = nelo_rpc::dbus::whyNotSendable(list);
    if (!why.empty())
    {
        throw CFailure(EExit::Usage, "the arguments cannot be sent: " + why);
    }
    return list;
}

std::string plainText(CValue& value)
{
    return shown(value).text;
}

std::string typedText(CValue& value)
{
    SShown const s = shown(value);
    std::string const text = cut(s.form == SShown::EForm::Text ? onOneLine(s.text) : s.text);
    if (s.type == "int")
    {
        return text;
    }
    if (s.form == SShown::EForm::Text)
    {
        return (s.type == "string" ? "" : s.type + ":") + '"' + text + '"';
    }
    return s.type + ":" + text;
}

std::string typedText(CValueList const& list)
{
    std::string text = "(";
    int expected = 0;
    for (auto const& [index, value] : list)
    {
        if (index < 0)
        {
            continue;
        }
        text += text.size() > 1 ? ", " : "";
        text += (index == expected ? "" : std::to_string(index) + " = ") + typedText(*value);
        expected = index + 1;
    }
    return text + ")";
}

std::string json(CValue& value)
{
    SShown const s = shown(value);
    bool const isBare = s.form == SShown::EForm::Bool || (s.form == SShown::EForm::Number && isJsonNumber(s.text));
    return "{\"type\":" + jsonText(s.type) + ",\"value\":" + (isBare ? s.text : jsonText(s.text)) + "}";
}

std::string json(CValueList const& list)
{
    std::string text = "{";
    for (auto const& [index, value] : list)
    {
        if (index >= 0)
        {
            text += (text.size() > 1 ? ",\"" : "\"") + std::to_string(index) + "\":" + json(*value);
        }
    }
    return text + "}";
}

std::string jsonText(std::string const& text)
{
    std::string quoted = "\"";
    for (char const c : text)
    {
        if (c == '"' || c == '\\')
        {
            quoted += '\\';
        }
        quoted += static_cast<unsigned char>(c) < 0x20 ? escaped(c) : std::string(1, c);
    }
    return quoted + "\"";
}

std::string onOneLine(std::string const& text)
{
    std::string line;
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        auto const c = static_cast<unsigned char>(text[i]);
        // U+0080 to U+009F are control characters as well, and two bytes long.
        bool const isLongControl = c == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xa0;
        if (isLongControl)
        {
            line += escaped(text[++i]);
        }
        else
        {
            line += c < 0x20 || c == 0x7f ? escaped(text[i]) : std::string(1, text[i]);
        }
    }
    return line;
}

std::string textAt(CValueList const& list, int index)
{
    auto const entry = list.find(index);
    return entry != list.end() && hasType<std::string>(*entry->second) ? extract<std::string>(*entry->second) : "";
}

std::string numberAt(CValueList const& list, int index)
{
    auto const entry = list.find(index);
    return entry != list.end() && hasType<int>(*entry->second) ? std::to_string(extract<int>(*entry->second)) : "?";
}
