#include "CDirectoryWatcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>

namespace
{

constexpr unsigned int APPEARED = IN_CREATE | IN_MOVED_TO;
constexpr unsigned int VANISHED = IN_DELETE | IN_MOVED_FROM;

} // namespace

CDirectoryWatcher::CDirectoryWatcher()
    : m_inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
      m_stop(::eventfd(0, EFD_CLOEXEC)),
      m_reader([this] { ReadEvents(); })
{
}

CDirectoryWatcher::~CDirectoryWatcher()
{
    std::uint64_t const one = 1;
    if (::write(m_stop, &one, sizeof(one)) == sizeof(one))
    {
        m_reader.join();
    }
    else
    {
        m_reader.detach(); // not reached: a fresh eventfd takes a one
    }
    ::close(m_stop);
    ::close(m_inotify);
}

bool CDirectoryWatcher::Watch(std::string const& directory)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_watch != -1)
    {
        ::inotify_rm_watch(m_inotify, m_watch);
    }
    m_watch = ::inotify_add_watch(m_inotify, directory.c_str(), APPEARED | VANISHED | IN_CLOSE_WRITE);
    m_directory = directory;
    m_names.clear();
    return m_watch != -1;
}

bool CDirectoryWatcher::WaitForFile(std::string const& name, int limitMs)
{
    OnWaiting.Send(name);

    std::unique_lock<std::mutex> lock(m_mutex);
    return m_appeared.wait_for(lock, std::chrono::milliseconds(limitMs), [&] { return m_names.count(name) != 0; });
}

void CDirectoryWatcher::ReadEvents()
{
    alignas(inotify_event) char buffer[4096];
    for (;;)
    {
        pollfd waits[] = {{m_inotify, POLLIN, 0}, {m_stop, POLLIN, 0}};
        ::poll(waits, 2, -1);
        if (waits[1].revents != 0)
        {
            return;
        }

        ssize_t const size = ::read(m_inotify, buffer, sizeof(buffer));
        for (ssize_t at = 0; at < size;)
        {
            inotify_event event;
            std::memcpy(&event, buffer + at, sizeof(event));
            if (event.len != 0)
            {
                Publish(event.mask, buffer + at + sizeof(event));
            }
            at += static_cast<ssize_t>(sizeof(event) + event.len);
        }
    }
}

void CDirectoryWatcher::Publish(unsigned int mask, std::string const& name)
{
    std::string path;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        path = m_directory + "/" + name;
        if ((mask & APPEARED) != 0)
        {
            m_names.insert(name);
            m_appeared.notify_all();
        }
    }

    // Unlocked: a send may wait for the bus, and Watch must not wait for a send.
    if ((mask & APPEARED) != 0)
    {
        OnCreated.Send(name);
    }
    else if ((mask & VANISHED) != 0)
    {
        OnRemoved.Send(name);
    }
    else if ((mask & IN_CLOSE_WRITE) != 0)
    {
        struct stat status
        {
        };
        OnChanged.Send(name, ::stat(path.c_str(), &status) == 0 ? static_cast<double>(status.st_size) : -1.0);
    }
}
