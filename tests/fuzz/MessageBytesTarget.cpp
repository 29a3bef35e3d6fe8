/// Input: a whole message as it comes from the socket.

#include "ReaderCheck.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    DBusError error = DBUS_ERROR_INIT;
    if (DBusMessage* const message =
            dbus_message_demarshal(reinterpret_cast<char const*>(data), static_cast<int>(size), &error))
    {
        fuzz::checkReader(message);
        dbus_message_unref(message);
    }
    dbus_error_free(&error);
    return 0;
}
