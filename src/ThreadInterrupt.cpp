#include "ThreadInterrupt.h"

#include <nelo_rpc/Cancellation.h>

#include <execinfo.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <mutex>
#include <sstream>
#include <utility>

namespace nelo_rpc::interrupt
{

namespace
{

constexpr int SIGNAL = SIGURG;

enum class EState
{
    Waiting,
    Running,
    Done,
    GivenUp
};

/// What one thread is asked to do. Never destroyed, because a signal may arrive at any time.
struct SJob
{
    std::atomic<int> thread{0};
    void (*function)(void* data) = nullptr;
    std::shared_ptr<void> data;
    bool (*mustStay)() = nullptr;
    std::atomic<EState> state{EState::GivenUp};
    sem_t done{};
};

/// Null after one that its thread may still come to.
std::atomic<SJob*> currentJob{nullptr};
struct sigaction earlierAction;

void callEarlier(int signal, siginfo_t* info, void* context)
{
    if ((earlierAction.sa_flags & SA_SIGINFO) != 0)
    {
        earlierAction.sa_sigaction(signal, info, context);
    }
    else if (earlierAction.sa_handler != SIG_DFL && earlierAction.sa_handler != SIG_IGN)
    {
        earlierAction.sa_handler(signal);
    }
}

/// Whether the signal has ended a system call: what it returned is in the register of results then.
bool hasEndedACall(void const* context)
{
    [[maybe_unused]] auto const& machine = static_cast<ucontext_t const*>(context)->uc_mcontext;
#if defined(__x86_64__)
    return machine.gregs[REG_RAX] == -EINTR;
#elif defined(__aarch64__)
    return static_cast<long>(machine.regs[0]) == -EINTR;
#else
    return true; // not known
#endif
}

/// Without a cancellation point: the thread may be anywhere.
void stayWhile(bool (*mustStay)())
{
    constexpr int LONGEST_MS = 60000;
    for (int passed = 0; passed < LONGEST_MS && mustStay(); ++passed)
    {
        timespec const millisecond{0, 1000000};
        ::syscall(SYS_nanosleep, &millisecond, nullptr);
    }
}

void onSignal(int signal, siginfo_t* info, void* context)
{
    int const oldErrno = errno;
    SJob* const job = currentJob;
    EState expected = EState::Waiting;
    if (job != nullptr && job->thread == OwnThread() && job->state.compare_exchange_strong(expected, EState::Running))
    {
        job->function(job->data.get());
        auto const mustStay = job->mustStay;
        job->state = EState::Done;
        ::sem_post(&job->done); // from here on the job is another's
        if (mustStay != nullptr && hasEndedACall(context))
        {
            stayWhile(mustStay);
        }
    }
    else
    {
        callEarlier(signal, info, context);
    }
    errno = oldErrno;
}

SJob& freeJob()
{
    SJob* job = currentJob;
    if (job == nullptr)
    {
        static auto& jobs = *new std::vector<SJob*>; // where a leak checker finds them
        job = jobs.emplace_back(new SJob);
        ::sem_init(&job->done, 0, 0);
    }
    return *job;
}

/// False if the limit passed first.
bool waitFor(sem_t& semaphore, std::chrono::milliseconds limit)
{
    timespec end{};
    ::clock_gettime(CLOCK_REALTIME, &end);
    auto const nanoseconds = end.tv_nsec + std::chrono::nanoseconds(limit).count();
    end.tv_sec += static_cast<time_t>(nanoseconds / 1000000000);
    end.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    int result = 0;
    do
    {
        result = ::sem_timedwait(&semaphore, &end);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

/// Whether the thread has done its job, once it has begun with it within the limit.
bool hasRun(SJob& job, std::chrono::milliseconds limit)
{
    if (waitFor(job.done, limit))
    {
        return true;
    }
    EState expected = EState::Waiting;
    return !job.state.compare_exchange_strong(expected, EState::GivenUp) && waitFor(job.done, limit);
}

struct SFrames
{
    std::array<void*, 64> addresses{};
    int count = 0;
};

/// The two functions of the handler, and what the kernel puts between them and the thread's own.
constexpr int OWN_FRAMES = 3;

void readFrames(void* data)
{
    auto& frames = *static_cast<SFrames*>(data);
    frames.count = ::backtrace(frames.addresses.data(), static_cast<int>(frames.addresses.size()));
}

/// A file that is mapped with code in it.
struct SModule
{
    std::uintptr_t begin = 0; // of the lowest mapping of the file
    std::uintptr_t end = 0;
    std::string path;
};

/// From the kernel, since the dynamic linker's list is behind a lock that the hung thread may hold.
std::vector<SModule> modules()
{
    std::vector<SModule> found;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
    {
        SModule module;
        char dash = 0;
        std::string rights;
        std::string skipped;
        std::istringstream words(line);
        words >> std::hex >> module.begin >> dash >> module.end >> rights >> skipped >> skipped >> skipped;
        std::getline(words >> std::ws, module.path);
        bool const isOfLast = !found.empty() && found.back().path == module.path;
        if (isOfLast)
        {
            found.back().end = module.end;
        }
        else if (!module.path.empty())
        {
            found.push_back(std::move(module));
        }
    }
    return found;
}

std::string textOf(void const* address, std::vector<SModule> const& all)
{
    auto const number = reinterpret_cast<std::uintptr_t>(address);
    std::ostringstream text;
    text << address;
    for (SModule const& module : all)
    {
        if (number >= module.begin && number < module.end)
        {
            text << " " << module.path << "+0x" << std::hex << number - module.begin;
        }
    }
    return text.str();
}

} // namespace

int OwnThread()
{
    return static_cast<int>(::syscall(SYS_gettid));
}

void Prepare()
{
    static std::once_flag once;
    std::call_once(once, [] {
        std::array<void*, 4> frames{};
        ::backtrace(frames.data(), static_cast<int>(frames.size())); // the first call loads a library

        struct sigaction action = {};
        action.sa_sigaction = &onSignal;
        action.sa_flags = SA_SIGINFO | SA_RESTART;
        ::sigemptyset(&action.sa_mask);
        // Nor does a cancellation act in the handler, in the middle of reading the stack: its signal waits until the
        // handler has returned. It is the first of the real-time signals, which no function adds to a set.
        constexpr int CANCELLATION = 32;
        action.sa_mask.__val[0] |= 1UL << (CANCELLATION - 1);
        ::sigaction(SIGNAL, nullptr, &earlierAction); // before it may be called
        ::sigaction(SIGNAL, &action, nullptr);
    });
}

bool Run(int thread, void (*function)(void* data), std::shared_ptr<void> data, std::chrono::milliseconds limit,
         bool (*mustStay)())
{
    static std::mutex& mutex = *new std::mutex;
    std::lock_guard<std::mutex> const lock(mutex);
    SJob& job = freeJob();
    job.thread = thread;
    job.function = function;
    job.data = std::move(data);
    job.mustStay = mustStay;
    job.state = EState::Waiting;
    currentJob = &job;
    if (::syscall(SYS_tgkill, ::getpid(), thread, SIGNAL) == 0 && hasRun(job, limit))
    {
        job.data.reset();
        return true;
    }
    currentJob = nullptr; // this one is its thread's alone from now on
    return false;
}

std::vector<std::string> StackOf(int thread, std::chrono::milliseconds limit)
{
    auto const frames = std::make_shared<SFrames>();
    std::vector<std::string> texts;
    if (Run(thread, &readFrames, frames, limit, &CCancellationRequest::IsOwnAwaited))
    {
        auto const all = modules();
        for (int frame = OWN_FRAMES; frame < frames->count; ++frame)
        {
            texts.push_back(textOf(frames->addresses[static_cast<std::size_t>(frame)], all));
        }
    }
    return texts;
}

} // namespace nelo_rpc::interrupt
