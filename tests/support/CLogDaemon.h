#pragma once

#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

/// A log daemon's socket in a folder of its own. It reads only what the test asks it for.
class CLogDaemon
{
public:
    CLogDaemon() { Start(); }
    ~CLogDaemon()
    {
        Stop();
        ::rmdir(m_folder.c_str());
    }
    CLogDaemon(CLogDaemon const&) = delete;
    CLogDaemon& operator=(CLogDaemon const&) = delete;

    std::string GetPath() const { return m_folder + "/log"; }

    void Start(int type = SOCK_DGRAM)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        GetPath().copy(address.sun_path, sizeof(address.sun_path) - 1);
        m_socket = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
        if (::bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            (type == SOCK_STREAM && ::listen(m_socket, 1) != 0))
        {
            throw std::runtime_error(std::strerror(errno));
        }
    }

    void Stop()
    {
        ::close(m_socket);
        ::unlink(GetPath().c_str());
    }

    /// The next datagram, or nothing after the limit.
    std::optional<std::string> Read(std::chrono::milliseconds limit = std::chrono::seconds(10)) const
    {
        pollfd arrival = {m_socket, POLLIN, 0};
        if (::poll(&arrival, 1, static_cast<int>(limit.count())) != 1)
        {
            return std::nullopt;
        }
        std::vector<char> datagram(1 << 20);
        auto const size = ::recv(m_socket, datagram.data(), datagram.size(), 0);
        return size < 0 ? std::nullopt
                        : std::make_optional(std::string(datagram.data(), static_cast<std::size_t>(size)));
    }

    /// All that has arrived.
    std::vector<std::string> ReadAll() const
    {
        std::vector<std::string> datagrams;
        while (auto datagram = Read(std::chrono::milliseconds(0)))
        {
            datagrams.push_back(*std::move(datagram));
        }
        return datagrams;
    }

private:
    static std::string NewFolder()
    {
        std::array<char, 32> name{"/tmp/nelo-rpc-log-XXXXXX"};
        if (::mkdtemp(name.data()) == nullptr)
        {
            throw std::runtime_error(std::strerror(errno));
        }
        return name.data();
    }

    std::string const m_folder = NewFolder();
    int m_socket = -1;
};
