#include "../../src/SystemLog.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

/// usage: SystemLogProgram compare | stalled | exit <path of the daemon's socket>
///
/// compare and stalled run in a mount namespace with a /dev/log of their own.

using nelo_rpc::log::ELevel;
using nelo_rpc::log::SystemLogPrint;
using nelo_rpc::log::TAG;

namespace
{

struct SLogsAtExit
{
    ~SLogsAtExit()
    {
        if (isWanted)
        {
            SystemLogPrint(ELevel::Error, TAG, "in a static destructor");
        }
    }

    bool isWanted = false;
};

SLogsAtExit logsAtExit; // made before the library's log, and destroyed after all that the log might register

void say(char const* text)
{
    std::puts(text);
    std::fflush(stdout);
}

bool writeFile(char const* path, std::string const& text)
{
    return static_cast<bool>(std::ofstream(path) << text << std::flush);
}

/// The socket, or -1 if this user may not have a namespace.
int ownDevLog()
{
    // Files cannot be made by a user or a group that the namespace does not know.
    std::string const user = "0 " + std::to_string(::geteuid()) + " 1";
    std::string const group = "0 " + std::to_string(::getegid()) + " 1";
    bool const isOwn = ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && writeFile("/proc/self/setgroups", "deny") &&
                       writeFile("/proc/self/uid_map", user) && writeFile("/proc/self/gid_map", group) &&
                       ::mount("none", "/dev", "tmpfs", 0, nullptr) == 0;
    if (!isOwn)
    {
        return -1;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    int const daemon = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    return ::bind(daemon, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 ? daemon : -1;
}

std::string readDatagram(int daemon)
{
    char datagram[1000];
    auto const size = ::recv(daemon, datagram, sizeof(datagram), MSG_DONTWAIT);
    return size < 0 ? "nothing" : std::string(datagram, static_cast<std::size_t>(size));
}

std::string timeOf(std::string const& datagram)
{
    return datagram.substr(0, 20);
}

void compare(int daemon)
{
    std::string ours;
    std::string theirs;
    // Again if a second ended in between.
    for (int i = 0; i < 10 && (ours.empty() || timeOf(ours) != timeOf(theirs)); ++i)
    {
        SystemLogPrint(ELevel::Error, TAG, "a line");
        ::syslog(LOG_ERR, "%s: %s", TAG, "a line");
        ours = readDatagram(daemon);
        theirs = readDatagram(daemon);
    }
    say(ours.c_str());
    say(theirs.c_str());
    say(ours.size() == theirs.size() && ours.size() == std::strlen(ours.c_str()) ? "end" : "NULs");
}

void logWhileStalled()
{
    std::atomic<int> lines{0};
    std::thread([&] {
        for (;;)
        {
            ::syslog(LOG_ERR, "of the application");
            ++lines;
        }
    }).detach();
    // Stopped is who makes no progress for a while.
    for (int seen = -1; seen != lines || seen == 0;)
    {
        seen = lines;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    for (int i = 0; i < 1000; ++i)
    {
        SystemLogPrint(ELevel::Error, TAG, "of the library");
    }
    say("logged");
}

} // namespace

int main(int /*argc*/, char** argv)
{
    std::string const mode = argv[1];
    if (mode == "exit")
    {
        logsAtExit.isWanted = true;
        nelo_rpc::log::SetSystemLogPath(argv[2]);
        SystemLogPrint(ELevel::Error, TAG, "in main");
        return 0;
    }
    int const daemon = ownDevLog();
    if (daemon < 0)
    {
        say("no namespace");
        return 0;
    }
    if (mode == "compare")
    {
        compare(daemon);
        return 0;
    }
    logWhileStalled();
    ::_exit(0); // a thread is stopped for good
}
