#include <nelo_rpc/Values.h>

#include <nelo_rpc/Cancellation.h>

#include "SystemLog.h"

#include <cstdlib>

namespace nelo_rpc::types
{

namespace
{

/// Null if the value is of another class or kind.
CBinaryValue const* findBinaryOfKind(CValue& v, int kind)
{
    auto const* const binary = dynamic_cast<CBinaryValue*>(&v);
    return binary != nullptr && binary->GetKind() == kind ? binary : nullptr;
}

CBinaryValue const& binaryOfKind(CValue& v, int kind)
{
    auto const* const binary = findBinaryOfKind(v, kind);
    if (binary == nullptr)
    {
        internal_values::failOnWrongType();
    }
    return *binary;
}

} // namespace

namespace internal_values
{

void failOnWrongType()
{
    CCancellationGuard const guard; // also called by application code, which may be killed at any instruction
    logFatal() << "wrong type in CValue";
    std::abort();
}

char const* bytesOfKind(CValue& v, int kind, unsigned int size)
{
    CBinaryValue const& binary = binaryOfKind(v, kind);
    if (binary.GetSize() < size)
    {
        failOnWrongType();
    }
    return binary.GetData();
}

bool hasBytesOfKind(CValue& v, int kind, unsigned int size)
{
    auto const* const binary = findBinaryOfKind(v, kind);
    return binary != nullptr && binary->GetSize() >= size;
}

} // namespace internal_values

std::shared_ptr<CValue> SValueTraits<std::vector<std::uint8_t>>::Pack(std::vector<std::uint8_t> const& bytes)
{
    return std::make_shared<CBinaryValue>(bytes.data(), static_cast<unsigned int>(bytes.size()), binarykind::Opaque);
}

std::vector<std::uint8_t> SValueTraits<std::vector<std::uint8_t>>::Unpack(CValue& v)
{
    CBinaryValue const& binary = binaryOfKind(v, binarykind::Opaque);
    return std::vector<std::uint8_t>(binary.GetData(), binary.GetData() + binary.GetSize());
}

bool SValueTraits<std::vector<std::uint8_t>>::Accepts(CValue& v)
{
    return findBinaryOfKind(v, binarykind::Opaque) != nullptr;
}

CValue& entryAt(CValueList const& list, int index)
{
    auto const entry = list.find(index);
    if (entry == list.end() || entry->second == nullptr)
    {
        internal_values::failOnWrongType();
    }
    return *entry->second;
}

bool readBoolResult(CValue& v)
{
    if (auto const* const binary = dynamic_cast<CBinaryValue*>(&v))
    {
        return binary->GetSize() > 0 && binary->GetData()[0] != 0;
    }
    return extract<bool>(v);
}

} // namespace nelo_rpc::types
