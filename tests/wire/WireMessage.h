#pragma once

#include <cstdint>
#include <map>
#include <string>

/// A message as it lies on the wire, taken apart without the bus library, so that the two are checked against
/// each other and not against themselves.
struct SWireMessage
{
    int type = 0;
    int flags = 0;
    std::uint32_t serial = 0;
    std::map<int, std::string> fields; ///< header fields by their code, numbers in decimal
    std::string body;

    /// Takes a little-endian message of protocol version 1 apart. Throws std::runtime_error when it breaks the
    /// rules of the format: a wrong length, or padding that is not zero.
    static SWireMessage Parse(std::string const& bytes);
};

/// The bytes of a file of this folder's golden/: hexadecimal pairs and quoted text, "#" starts a comment.
/// Throws std::runtime_error when the file cannot be read.
std::string goldenBytes(std::string const& name);

/// For readable comparisons: "0a 0b".
std::string hex(std::string const& bytes);
