#pragma once

#include <nelo_rpc/CCString.h>
#include <nelo_rpc/Export.h>

#include <atomic>
#include <memory>
#include <sstream>
#include <string>
#include <typeinfo>

namespace nelo_rpc::types
{

/// One value of a list: an argument, a result or part of a callback's payload.
///
/// Held by std::shared_ptr<CValue> and never changed after construction, so any thread may read it. Since 0.1.
class NELO_RPC_API CValue
{
public:
    CValue() = default;
    CValue(CValue const&) = delete;
    CValue& operator=(CValue const&) = delete;

    /// The value as text, as log lines show it.
    virtual std::string ToString() const = 0;

    virtual ~CValue();
};

namespace internal_value
{
/// The name of a type as its source would spell it, or the raw name if that cannot be told.
NELO_RPC_API std::string demangle(std::type_info const& type);

/// Puts the name into `known`, where it stays for ever, unless another thread was quicker.
NELO_RPC_API std::string const& rememberName(std::atomic<std::string const*>& known, std::type_info const& type);

/// The same name for every value of a type. No static object of a function: a thread that is killed while it makes one
/// would leave it locked.
template <class T>
std::string const& nameOf()
{
    static std::atomic<std::string const*> known{nullptr};
    std::string const* const name = known.load(std::memory_order_acquire);
    return name != nullptr ? *name : rememberName(known, typeid(T));
}
} // namespace internal_value

/// A value of one C++ type: int, std::string, CCString or bool. Since 0.1.
template <class T>
class NELO_RPC_API CTypedValue : public CValue
{
public:
    explicit CTypedValue(T const& value) : m_value(value), m_typeName(internal_value::nameOf<T>()) {}

    /// "CTypedValue<" + type name + "> = " + the value as a stream writes it.
    std::string ToString() const override
    {
        std::ostringstream text;
        text << "CTypedValue<" << m_typeName << "> = " << m_value;
        return text.str();
    }

    /// The held value; lives as long as this object.
    T const& Get() const { return m_value; }

private:
    T m_value;
    std::string m_typeName;
};

extern template class CTypedValue<int>;
extern template class CTypedValue<bool>;
extern template class CTypedValue<std::string>;
extern template class CTypedValue<CCString>;

/// How the bytes of a binary value are to be read; any other number is opaque.
namespace binarykind
{
constexpr int Opaque = 0;   ///< bytes without a meaning of their own
constexpr int Unsigned = 1; ///< 4 bytes, unsigned integer in the machine's byte order
constexpr int Float = 2;    ///< 4 bytes
constexpr int Double = 3;   ///< 8 bytes
constexpr int Bool = 4;     ///< 1 byte, non-zero is true
constexpr int Enum = 5;     ///< 4 bytes, signed integer
} // namespace binarykind

/// A block of bytes with a kind. Since 0.1.
class NELO_RPC_API CBinaryValue : public CValue
{
public:
    /// Copies `size` bytes from `bytes`, which may be null when `size` is 0.
    CBinaryValue(void const* bytes, unsigned int size, int kind);

    ~CBinaryValue() override;

    /// "CBinaryValue[" + what the kind makes of the bytes + "]". Bytes that are missing count as zero.
    std::string ToString() const override;

    /// The owned bytes; never null.
    char const* GetData() const { return m_data; }

    /// Number of bytes.
    unsigned int GetSize() const { return m_size; }

    /// One of binarykind, or any other number: carried unchecked.
    int GetKind() const { return m_kind; }

private:
    char* m_data;
    unsigned int m_size;
    int m_kind;
};

} // namespace nelo_rpc::types
