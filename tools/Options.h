#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// What the command line says.
struct SOptions
{
    std::string command;
    std::vector<std::string> words; ///< behind the command

    bool help = false;
    bool version = false;
    bool json = false;
    bool ask = false;
    std::optional<std::chrono::milliseconds> timeout;
    std::optional<long> count;

    std::vector<std::string> given; ///< the names of the options, for the command to say which ones it takes
};

/// Throws CFailure for an option that there is not, or a value that makes no sense.
SOptions parseOptions(std::vector<std::string> const& arguments);

/// The candidate that somebody who wrote `word` most likely meant; empty if none is near.
std::string closest(std::string const& word, std::vector<std::string> const& candidates);

/// "; did you mean 'candidate'?", or nothing if none is near.
std::string suggestion(std::string const& word, std::vector<std::string> const& candidates);
