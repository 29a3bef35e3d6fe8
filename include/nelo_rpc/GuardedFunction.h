#pragma once

#include <nelo_rpc/Export.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

/// Functions that some threads call while others replace or remove them.
///
/// No lock is held while a function runs, so it may call, replace or remove itself. Replacing and removing return
/// only when the old function is not running on another thread, so what it used may then be destroyed.
namespace nelo_rpc::internal_guarded
{

/// The threads that are inside a function; a thread that is inside twice is listed twice.
class NELO_RPC_API CRunners
{
public:
    void Enter();
    void Leave();

    /// Returns when no thread but the caller's own is inside.
    void WaitForOthers();

private:
    std::mutex m_mutex;
    std::condition_variable m_left;
    std::vector<std::thread::id> m_threads;
};

/// The calling thread's stay inside a function, if it entered one.
class NELO_RPC_API CRun
{
public:
    CRun() = default;
    CRun(CRun const&) = delete;
    CRun& operator=(CRun const&) = delete;
    ~CRun();

    void Enter(std::shared_ptr<CRunners> runners);

private:
    std::shared_ptr<CRunners> m_runners;
};

/// A function together with the threads that run it. The runners live longer, because a thread leaves only when it
/// has let go of the function: whoever waits for it may then destroy what the function holds on to.
template <class... Args>
struct SEntry
{
    explicit SEntry(std::function<void(Args...)> f) : function(std::move(f)), runners(std::make_shared<CRunners>()) {}

    std::function<void(Args...)> function;
    std::shared_ptr<CRunners> runners;
};

/// One function that may be empty.
template <class... Args>
class CGuardedFunction
{
public:
    void Set(std::function<void(Args...)> function)
    {
        std::shared_ptr<Entry> entry = function ? std::make_shared<Entry>(std::move(function)) : nullptr;
        {
            std::lock_guard<std::mutex> const lock(m_mutex);
            m_entry.swap(entry);
        }
        if (entry != nullptr)
        {
            entry->runners->WaitForOthers();
        }
    }

    bool IsSet() const
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return m_entry != nullptr;
    }

    /// False if there is no function to call.
    bool Call(Args... args) const
    {
        CRun run; // left after the function is let go of
        std::shared_ptr<Entry> entry;
        {
            // Entered under the lock, so that whoever replaces the function afterwards sees this call.
            std::lock_guard<std::mutex> const lock(m_mutex);
            if (m_entry == nullptr)
            {
                return false;
            }
            entry = m_entry;
            run.Enter(entry->runners);
        }
        entry->function(std::forward<Args>(args)...);
        return true;
    }

private:
    using Entry = SEntry<Args...>;

    mutable std::mutex m_mutex;
    std::shared_ptr<Entry> m_entry;
};

/// Functions by key, at most one for each.
template <class Key, class... Args>
class CGuardedTable
{
public:
    /// Stores the function, an empty one too: calling it raises std::bad_function_call.
    void Set(Key const& key, std::function<void(Args...)> function)
    {
        Exchange(key, std::make_shared<Entry>(std::move(function)));
    }

    void Erase(Key const& key) { Exchange(key, nullptr); }

    /// False if there is no function under the key.
    bool Call(Key const& key, Args... args) const
    {
        CRun run;
        std::shared_ptr<Entry> entry;
        {
            std::lock_guard<std::mutex> const lock(m_mutex);
            auto const found = m_entries.find(key);
            if (found == m_entries.end())
            {
                return false;
            }
            entry = found->second;
            run.Enter(entry->runners);
        }
        entry->function(std::forward<Args>(args)...);
        return true;
    }

private:
    using Entry = SEntry<Args...>;

    void Exchange(Key const& key, std::shared_ptr<Entry> entry)
    {
        std::shared_ptr<Entry> old;
        {
            std::lock_guard<std::mutex> const lock(m_mutex);
            auto const found = m_entries.find(key);
            if (found != m_entries.end())
            {
                old = std::move(found->second);
                m_entries.erase(found);
            }
            if (entry != nullptr)
            {
                m_entries.emplace(key, std::move(entry));
            }
        }
        if (old != nullptr)
        {
            old->runners->WaitForOthers();
        }
    }

    mutable std::mutex m_mutex;
    std::map<Key, std::shared_ptr<Entry>> m_entries;
};

} // namespace nelo_rpc::internal_guarded
