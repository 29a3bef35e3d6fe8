#include <nelo_rpc/CValue.h>

#include <nelo_rpc/Cancellation.h>

#include <cxxabi.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace nelo_rpc::types
{

namespace
{

/// What the widest kind reads. Every block is at least this long, with zeroes behind what it was given, because a value
/// is shown in log lines whatever its size.
constexpr unsigned int WIDEST_KIND = 8;

template <class T>
T readBytes(char const* data)
{
    T value;
    std::memcpy(&value, data, sizeof(value));
    return value;
}

} // namespace

namespace internal_value
{

std::string demangle(std::type_info const& type)
{
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> const name(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status),
                                                           &std::free);
    return status == 0 && name != nullptr ? name.get() : type.name();
}

std::string const& rememberName(std::atomic<std::string const*>& known, std::type_info const& type)
{
    CCancellationGuard const guard; // values are made by application code too, which may be killed at any instruction
    auto name = std::make_unique<std::string const>(demangle(type));
    std::string const* first = nullptr;
    if (known.compare_exchange_strong(first, name.get(), std::memory_order_acq_rel))
    {
        first = name.release();
    }
    return *first;
}

} // namespace internal_value

CValue::~CValue() = default;

template class CTypedValue<int>;
template class CTypedValue<bool>;
template class CTypedValue<std::string>;
template class CTypedValue<CCString>;

CBinaryValue::CBinaryValue(void const* bytes, unsigned int size, int kind)
    : m_data(new char[std::max(size, WIDEST_KIND)]), m_size(size), m_kind(kind)
{
    if (size < WIDEST_KIND)
    {
        std::memset(m_data, 0, WIDEST_KIND);
    }
    if (size > 0)
    {
        std::memcpy(m_data, bytes, size);
    }
}

CBinaryValue::~CBinaryValue()
{
    delete[] m_data;
}

std::string CBinaryValue::ToString() const
{
    std::string body;
    switch (m_kind)
    {
    case binarykind::Unsigned:
        body = "uint=" + std::to_string(readBytes<std::uint32_t>(m_data));
        break;
    case binarykind::Float:
        body = "float=" + std::to_string(readBytes<float>(m_data));
        break;
    case binarykind::Double:
        body = "double=" + std::to_string(readBytes<double>(m_data));
        break;
    case binarykind::Bool:
        body = std::string("bool=") + (m_data[0] != 0 ? "true" : "false");
        break;
    case binarykind::Enum:
        body = "enum=" + std::to_string(readBytes<std::int32_t>(m_data));
        break;
    default:
        body = "size=" + std::to_string(m_size);
        break;
    }
    return "CBinaryValue[" + body + "]";
}

} // namespace nelo_rpc::types
