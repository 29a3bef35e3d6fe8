#pragma once

#include <dbus/dbus.h>

/// What must hold for every message, however it came about. Stops the process where it does not.
namespace fuzz
{

/// Reads the message as a port does that does not trust its peers. What is accepted can be rendered, and sent again to
/// be read as the same; what is refused leaves nothing behind, and says why.
///
/// @return whether its body was accepted.
bool checkReader(DBusMessage* message);

/// Turns the log off, and aborts on misuse of the bus library. Once, before anything else.
void setUp();

} // namespace fuzz
