#include "Terminal.h"

#include "Failure.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>

namespace
{

bool showsColours(int fd)
{
    char const* const noColour = std::getenv("NO_COLOR");
    char const* const terminal = std::getenv("TERM");
    return ::isatty(fd) != 0 && (noColour == nullptr || *noColour == '\0') && terminal != nullptr &&
           std::string(terminal) != "dumb";
}

std::string now(char const* format)
{
    auto const time = std::chrono::system_clock::now();
    auto const micros = std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
    std::time_t const seconds = std::chrono::system_clock::to_time_t(time);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    char whole[64];
    std::strftime(whole, sizeof(whole), format, &local);
    char fraction[16];
    std::snprintf(fraction, sizeof(fraction), ".%06d", static_cast<int>(micros % 1000000));
    return std::string(whole) + fraction;
}

} // namespace

std::string coloured(EColour colour, std::string const& text, bool isError)
{
    if (colour == EColour::Plain || !showsColours(isError ? STDERR_FILENO : STDOUT_FILENO))
    {
        return text;
    }
    return "\033[" + std::to_string(30 + static_cast<int>(colour)) + "m" + text + "\033[0m";
}

bool isTerminal()
{
    return ::isatty(STDOUT_FILENO) != 0;
}

void print(std::string const& line)
{
    if (!(std::cout << line << std::endl))
    {
        throw CFailure(EExit::Broken, "standard output takes no more");
    }
}

std::string timeOfDay()
{
    return now("%H:%M:%S");
}

std::string timeStamp()
{
    return now("%Y-%m-%dT%H:%M:%S");
}

std::string inMilliseconds(std::chrono::microseconds time)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%.3f", static_cast<double>(time.count()) / 1000.0);
    return text;
}
