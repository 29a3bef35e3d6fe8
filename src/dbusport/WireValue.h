#pragma once

#include <nelo_rpc/CValue.h>

#include <cstddef>

/// What of a value goes into the body of a message.
namespace nelo_rpc::dbus
{

constexpr int TAG_INT = 0;
constexpr int TAG_STRING = 1;
constexpr int TAG_C_STRING = 2;
constexpr int TAG_BINARY = 3;
constexpr int NO_TAG = -1;

/// A value with its tag. The text or the bytes belong to the value.
struct SWireValue
{
    int tag = NO_TAG;
    int number = 0; // the integer, or the kind of the bytes
    char const* data = nullptr;
    std::size_t size = 0;

    bool IsText() const { return tag == TAG_STRING || tag == TAG_C_STRING; }
};

/// A value of a class without a tag gets NO_TAG.
SWireValue wireValueOf(types::CValue& value);

/// What an entry with this value adds to the signature of a body.
char const* signatureOf(SWireValue const& value);

} // namespace nelo_rpc::dbus
