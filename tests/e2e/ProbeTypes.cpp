#include "ProbeTypes.h"

#include <sstream>

std::string join(int i, unsigned int u, bool b, float f, double d, std::string const& s, char const* c, EColour e,
                 Bytes const& bytes)
{
    std::ostringstream text;
    text.precision(17);
    text << i << ' ' << u << ' ' << b << ' ' << f << ' ' << d << ' ' << s << ' ' << c << ' ' << static_cast<int>(e);
    for (std::uint8_t const byte : bytes)
    {
        text << ' ' << static_cast<int>(byte);
    }
    return text.str();
}
