#pragma once

#include <chrono>
#include <string>

/// Colours for people: none unless the stream is a terminal that shows them and NO_COLOR is not set.
enum class EColour
{
    Plain,
    Red,
    Green,
    Yellow,
    Blue
};

/// The text in a colour, for standard output or, with `isError`, for standard error.
std::string coloured(EColour colour, std::string const& text, bool isError = false);

/// Whether standard output is a terminal, to which not every character may go.
bool isTerminal();

/// Writes a line to standard output at once. Throws CFailure when nobody takes it any more.
void print(std::string const& line);

/// The time of day with microseconds, and the same with its date for machines.
std::string timeOfDay();
std::string timeStamp();

/// A duration in milliseconds with three decimals.
std::string inMilliseconds(std::chrono::microseconds time);
