#pragma once

#include "CRawPeer.h"

#include <functional>
#include <random>
#include <string>
#include <vector>

/// Messages that no client of the library sends, each class of them with what is to become of it.

/// How a server that does not trust its peers meets a message.
enum class EFate
{
    Refused,  ///< with an error
    Answered, ///< with a return
    Either,   ///< well-formed but senseless: with one of the two
    Ignored   ///< it asks for no answer
};

/// What a message is made for.
struct SHostileTarget
{
    std::string server;   ///< its bus name
    int actorId;          ///< a stepper that the sender has made
    std::mt19937& random; ///< for what a class leaves open
};

struct SHostileClass
{
    char const* name;
    EFate fate;

    std::function<MessagePtr(SHostileTarget const& target)> make;
};

std::vector<SHostileClass> const& hostileClasses();
