#pragma once

#include <stdexcept>
#include <string>

/// How the program ends: what scripts can tell apart. The numbers are documented in the manual page.
enum class EExit
{
    Done = 0,
    Broken = 1,     ///< what the others do not cover
    Usage = 2,      ///< a word of the command line is wrong
    NoBus = 3,      ///< the bus cannot be reached, or was lost
    NoSuchName = 4, ///< nobody owns the name
    Refused = 5,    ///< the bus or the server refused
    NoReply = 6,    ///< nothing came in time, or the server left
    NoResult = 7    ///< the server answered, but with nothing
};

/// Ends the command; the text is for people.
class CFailure : public std::runtime_error
{
public:
    CFailure(EExit exit, std::string const& text) : std::runtime_error(text), m_exit(exit) {}

    EExit GetExit() const { return m_exit; }

private:
    EExit m_exit;
};
