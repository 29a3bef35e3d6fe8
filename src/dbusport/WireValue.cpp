#include "WireValue.h"

#include <cstring>

namespace nelo_rpc::dbus
{

SWireValue wireValueOf(types::CValue& value)
{
    if (auto const* const number = dynamic_cast<types::CTypedValue<int>*>(&value))
    {
        return {TAG_INT, number->Get(), nullptr, 0};
    }
    if (auto const* const text = dynamic_cast<types::CTypedValue<std::string>*>(&value))
    {
        return {TAG_STRING, 0, text->Get().c_str(), text->Get().size()};
    }
    if (auto const* const text = dynamic_cast<types::CTypedValue<types::CCString>*>(&value))
    {
        char const* const data = text->Get().GetConst();
        return {TAG_C_STRING, 0, data, std::strlen(data)};
    }
    if (auto const* const binary = dynamic_cast<types::CBinaryValue*>(&value))
    {
        return {TAG_BINARY, binary->GetKind(), binary->GetData(), binary->GetSize()};
    }
    return {};
}

char const* signatureOf(SWireValue const& value)
{
    switch (value.tag)
    {
    case TAG_STRING:
    case TAG_C_STRING:
        return "iis";
    case TAG_BINARY:
        return "iiayi";
    default:
        return "iii";
    }
}

} // namespace nelo_rpc::dbus
