#pragma once

#include <nelo_rpc/CCString.h>
#include <nelo_rpc/CValue.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Export.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

/// Making, testing and reading values.
namespace nelo_rpc::types
{

namespace internal_values
{

/// Logs "wrong type in CValue" at fatal level and ends the process.
[[noreturn]] NELO_RPC_API void failOnWrongType();

/// What a type is stored as: C strings as an owned CCString, everything else as itself.
template <class T>
struct StorageOf
{
    using Type = T;
};
template <>
struct StorageOf<char*>
{
    using Type = CCString;
};
template <>
struct StorageOf<char const*>
{
    using Type = CCString;
};

template <class T>
T const& held(CValue& v)
{
    auto const* const typed = dynamic_cast<CTypedValue<T>*>(&v);
    if (typed == nullptr)
    {
        failOnWrongType();
    }
    return typed->Get();
}

} // namespace internal_values

/// A new value that holds a copy of `v`. A C string is copied into an owned CCString and must not be null.
template <class T>
std::shared_ptr<CValue> makeValue(T const& v)
{
    using Storage = typename internal_values::StorageOf<T>::Type;
    return std::make_shared<CTypedValue<Storage>>(v);
}

/// Whether `v` is a CTypedValue of what T is stored as.
template <class T>
bool hasType(CValue& v)
{
    using Storage = typename internal_values::StorageOf<T>::Type;
    return dynamic_cast<CTypedValue<Storage>*>(&v) != nullptr;
}

/// The value that `v` holds; the reference lives as long as `v`.
/// A value of another type is fatal: "wrong type in CValue" is logged and the process aborts.
template <class T>
T const& extract(CValue& v)
{
    if constexpr (std::is_same_v<T, char*>)
    {
        return internal_values::held<CCString>(v).Get();
    }
    else if constexpr (std::is_same_v<T, char const*>)
    {
        return internal_values::held<CCString>(v).GetConst();
    }
    else
    {
        return internal_values::held<T>(v);
    }
}

/// What a call yields when nothing usable came back.
template <class T>
T defaultReturnValue()
{
    return T();
}
template <>
inline CCString defaultReturnValue<CCString>()
{
    return CCString("");
}

/// How a C++ type travels as a value. Specialise it for a type of your own:
///
/// @code
/// template <> struct nelo_rpc::types::SValueTraits<Point>
/// {
///     static std::shared_ptr<CValue> Pack(Point const& p) { return packValue(p.x + "," + p.y); }
///     static Point Unpack(CValue& v) { return parsePoint(unpackValue<std::string>(v)); }
///     static bool Accepts(CValue& v) { return canUnpack<std::string>(v); }
/// };
/// @endcode
///
/// Pack must give one of the classes that can be sent (int, std::string, CCString, CBinaryValue); Unpack
/// meets whatever a peer sent. Accepts says of a value, before it is unpacked, whether Unpack can take it: a host that
/// does not trust its peers refuses a call with an argument that is not accepted. It may be left out if Unpack takes
/// any value. All run on the thread that makes or serves the call. Since 0.1.
template <class T, class Enable = void>
struct SValueTraits
{
    static_assert(!std::is_same_v<T, T>, "this type cannot travel as an argument, a result or a callback's payload: "
                                         "use int, unsigned, bool, float, double, an enumeration, std::string, "
                                         "char const*, CCString or std::vector<std::uint8_t>, "
                                         "or specialise nelo_rpc::types::SValueTraits for it");
};

namespace internal_values
{

/// A value that is held as CTypedValue of its own type.
template <class T>
struct TypedTraits
{
    static std::shared_ptr<CValue> Pack(T const& value) { return makeValue<T>(value); }
    static T Unpack(CValue& v) { return extract<T>(v); }
    static bool Accepts(CValue& v) { return hasType<T>(v); }
};

/// The bytes of a binary value of exactly this kind with at least `size` bytes; anything else is fatal.
NELO_RPC_API char const* bytesOfKind(CValue& v, int kind, unsigned int size);

/// Whether there are such bytes.
NELO_RPC_API bool hasBytesOfKind(CValue& v, int kind, unsigned int size);

/// A value that is held as a binary value of a fixed size.
template <class T, class Wire, int Kind>
struct BinaryTraits
{
    static std::shared_ptr<CValue> Pack(T const& value)
    {
        auto const wire = static_cast<Wire>(value);
        return std::make_shared<CBinaryValue>(&wire, static_cast<unsigned int>(sizeof(wire)), Kind);
    }

    static T Unpack(CValue& v)
    {
        Wire wire;
        std::memcpy(&wire, bytesOfKind(v, Kind, sizeof(wire)), sizeof(wire));
        return static_cast<T>(wire);
    }

    static bool Accepts(CValue& v) { return hasBytesOfKind(v, Kind, sizeof(Wire)); }
};

template <class T, class Enable = void>
struct HasAccepts : std::false_type
{
};
template <class T>
struct HasAccepts<T, std::void_t<decltype(SValueTraits<T>::Accepts(std::declval<CValue&>()))>> : std::true_type
{
};

} // namespace internal_values

template <>
struct SValueTraits<int> : internal_values::TypedTraits<int>
{
};
template <>
struct SValueTraits<std::string> : internal_values::TypedTraits<std::string>
{
};
template <>
struct SValueTraits<CCString> : internal_values::TypedTraits<CCString>
{
};

/// The text read belongs to the value: it lives as long as the list that holds it.
template <>
struct SValueTraits<char const*> : internal_values::TypedTraits<char const*>
{
};

template <>
struct SValueTraits<unsigned int> : internal_values::BinaryTraits<unsigned int, std::uint32_t, binarykind::Unsigned>
{
};
template <>
struct SValueTraits<float> : internal_values::BinaryTraits<float, float, binarykind::Float>
{
};
template <>
struct SValueTraits<double> : internal_values::BinaryTraits<double, double, binarykind::Double>
{
};
template <>
struct SValueTraits<bool> : internal_values::BinaryTraits<bool, std::uint8_t, binarykind::Bool>
{
};

/// Enumerations travel as a signed 32-bit number.
template <class T>
struct SValueTraits<T, std::enable_if_t<std::is_enum_v<T>>>
    : internal_values::BinaryTraits<T, std::int32_t, binarykind::Enum>
{
    static_assert(sizeof(T) <= sizeof(std::int32_t), "an enumeration must fit into a signed 32-bit number to travel");
};

template <>
struct SValueTraits<std::vector<std::uint8_t>>
{
    NELO_RPC_API static std::shared_ptr<CValue> Pack(std::vector<std::uint8_t> const& bytes);
    NELO_RPC_API static std::vector<std::uint8_t> Unpack(CValue& v);
    NELO_RPC_API static bool Accepts(CValue& v);
};

/// The value of a typed argument, result or payload.
template <class T>
std::shared_ptr<CValue> packValue(T const& value)
{
    return SValueTraits<T>::Pack(value);
}

/// Reads a typed argument, result or payload. Another class, another kind or too few bytes are fatal:
/// "wrong type in CValue" is logged and the process aborts.
template <class T>
T unpackValue(CValue& v)
{
    return SValueTraits<T>::Unpack(v);
}

/// Whether unpackValue<T>() can take the value. Of a type whose traits do not say it, any value can be taken.
/// Since 0.1.
template <class T>
bool canUnpack(CValue& v)
{
    if constexpr (internal_values::HasAccepts<T>::value)
    {
        return SValueTraits<T>::Accepts(v);
    }
    else
    {
        static_cast<void>(v);
        return true;
    }
}

/// The entry of a list under an index. A missing or null entry is fatal, as a wrong type is.
NELO_RPC_API CValue& entryAt(CValueList const& list, int index);

/// Reads the entry under an index. A missing entry is fatal, as a wrong type is.
template <class T>
T unpackAt(CValueList const& list, int index)
{
    return unpackValue<T>(entryAt(list, index));
}

/// Reads a boolean result that may be a typed or a binary value (its first byte; none is false).
/// Any other class is fatal, as a wrong type is.
NELO_RPC_API bool readBoolResult(CValue& v);

} // namespace nelo_rpc::types
