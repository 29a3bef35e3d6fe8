#pragma once

#include <cstdint>
#include <cstring>

/// The place of a virtual function in its class's table, as the C++ ABI of Linux lays it out: a pointer to such a
/// function holds the table's offset plus one.
template <class Member>
int virtualSlotOf(Member member)
{
    std::intptr_t offset = 0;
    static_assert(sizeof(member) >= sizeof(offset));
    std::memcpy(&offset, &member, sizeof(offset));
    return static_cast<int>((offset - 1) / static_cast<std::intptr_t>(sizeof(void*)));
}
