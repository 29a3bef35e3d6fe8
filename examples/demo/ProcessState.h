#pragma once

/// What a process does, as the kernel's one-letter state tells it. Server and client share this file.
enum class EProcessState
{
    Gone,
    Running,
    Sleeping,
    Stopped,
    Zombie,
    Other
};
