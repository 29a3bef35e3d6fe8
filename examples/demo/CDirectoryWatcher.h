#pragma once

#include <nelo_rpc/nelo_rpc.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>

/// Watches one directory of this machine and tells its client what happens to the files in it.
///
/// The kernel's events are read on a thread of the object's own, so callbacks leave whether a call runs
/// or not. No lock is held while one is sent.
class CDirectoryWatcher
{
public:
    CDirectoryWatcher();
    ~CDirectoryWatcher();

    CDirectoryWatcher(CDirectoryWatcher const&) = delete;
    CDirectoryWatcher& operator=(CDirectoryWatcher const&) = delete;

    /// Watches `directory` from now on, in place of the one before. False if the kernel refuses.
    bool Watch(std::string const& directory);

    /// Blocks until a file of this name has appeared since Watch, or the limit has passed.
    bool WaitForFile(std::string const& name, int limitMs);

    nelo_rpc::CCallbackSender<std::string> OnCreated;
    nelo_rpc::CCallbackSender<std::string, double> OnChanged; ///< name, size in bytes
    nelo_rpc::CCallbackSender<std::string> OnRemoved;
    nelo_rpc::CCallbackSender<std::string> OnWaiting; ///< sent by WaitForFile before it waits

private:
    void ReadEvents();
    void Publish(unsigned int mask, std::string const& name);

    int const m_inotify;
    int const m_stop; ///< an eventfd; readable when the thread must end

    std::mutex m_mutex; ///< guards what follows
    std::condition_variable m_appeared;
    int m_watch = -1;
    std::string m_directory;
    std::set<std::string> m_names;

    std::thread m_reader; ///< last: it uses all the others
};
