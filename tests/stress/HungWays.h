#pragma once

#include <string>
#include <vector>

/// The ways in which application code does not come back.
///
/// Those that are hung in the library itself are the stepper's: inside a callback's send, inside a line of the log,
/// inside a destructor.

struct SHungWay
{
    char const* name;

    /// Whether cancelling at any instruction is promised to end it without harm. Elsewhere it may cost the server its
    /// life or its memory allocator; then a campaign counts what happens.
    bool isSafeAnywhere;
};

inline std::vector<SHungWay> const& hungWays()
{
    static std::vector<SHungWay> const& ways = *new std::vector<SHungWay>{
        {"sleep", true},     {"condition wait", true},   {"mutex", false},       {"blocking read", true},
        {"busy loop", true}, {"allocation loop", false}, {"string loop", false}, {"callback send", true},
        {"log line", true},  {"destructor", true},
    };
    return ways;
}

/// Hangs in a way that has nothing to do with the library; unknown names return.
void hangOutsideTheLibrary(std::string const& way);
