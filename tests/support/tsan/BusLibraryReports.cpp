// Compiled into every test program that is built with ThreadSanitizer.
//
// The bus library is not instrumented. What it orders by atomic operations of its own cannot be seen, and it takes its
// own locks of connections in more than one order, so it is reported for races and inversions that are its own affair.
// These reports are dropped: those in which nothing but the bus library takes part, and those in which it frees memory
// that somebody has read, or writes to it. We read a message while we hold a reference to it; the count that makes the
// last holder free it, or keep it for the next message, is one of those atomic operations. A read of
// freed memory that came too late is what AddressSanitizer looks for; one of a message that was kept for the next shows
// as wrong contents only.
//
// A list of suppressions cannot say so. It looks at whole stacks, so it would drop all that happens below the bus
// library, which is everything that runs in a message handler; and a suppression of all that the bus library calls would
// drop the order that its locks give to our own data.

#include <link.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C"
{
    int __tsan_get_report_data(void* report, char const** description, int* count, int* stackCount, int* accessCount,
                               int* locationCount, int* mutexCount, int* threadCount, int* threadIdCount,
                               void** sleepTrace, unsigned long traceSize);
    int __tsan_get_report_stack(void* report, unsigned long index, void** trace, unsigned long traceSize);
    int __tsan_get_report_mop(void* report, unsigned long index, int* threadId, void** address, int* size, int* write,
                              int* atomic, void** trace, unsigned long traceSize);
}

namespace
{

struct SRange
{
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};

int findBusLibrary(dl_phdr_info* library, std::size_t, void* found)
{
    if (std::strstr(library->dlpi_name, "/libdbus-1.so") == nullptr)
    {
        return 0;
    }
    auto& range = *static_cast<SRange*>(found);
    range.begin = library->dlpi_addr;
    for (int i = 0; i < library->dlpi_phnum; ++i)
    {
        auto const& segment = library->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD)
        {
            range.end = library->dlpi_addr + segment.p_vaddr + segment.p_memsz;
        }
    }
    return 1;
}

SRange busLibrary()
{
    SRange range;
    ::dl_iterate_phdr(&findBusLibrary, &range);
    return range;
}

// Looked up before there is anything to report: the reports are made under locks of the sanitizer.
SRange const g_busLibrary = busLibrary();

/// A trace begins in the function that the sanitizer watches (a lock, an allocation, a copy); who called it comes next.
constexpr unsigned long TRACE_SIZE = 2;

bool isCalledByBusLibrary(void* const (&trace)[TRACE_SIZE])
{
    auto const caller = reinterpret_cast<std::uintptr_t>(trace[1]);
    return g_busLibrary.begin <= caller && caller < g_busLibrary.end;
}

/// Whether the function that the trace begins in is free().
bool isFree(void* const (&trace)[TRACE_SIZE])
{
    constexpr std::uintptr_t AT_MOST = 1024; // bytes of code
    auto const begin = reinterpret_cast<std::uintptr_t>(&std::free);
    auto const place = reinterpret_cast<std::uintptr_t>(trace[0]);
    return begin <= place && place < begin + AT_MOST;
}

bool isBusLibrarysOwn(void* report)
{
    char const* description = nullptr;
    int ignored = 0;
    int stacks = 0;
    int accesses = 0;
    void* sleepTrace[1] = {};
    __tsan_get_report_data(report, &description, &ignored, &stacks, &accesses, &ignored, &ignored, &ignored, &ignored,
                           sleepTrace, 1);

    bool allAreItsOwn = accesses + stacks > 0;
    bool isWrittenByIt = false;
    bool isWrittenByOthers = false;
    for (int i = 0; i < accesses; ++i)
    {
        void* trace[TRACE_SIZE] = {};
        void* address = nullptr;
        int isWrite = 0;
        __tsan_get_report_mop(report, static_cast<unsigned long>(i), &ignored, &address, &ignored, &isWrite, &ignored,
                              trace, TRACE_SIZE);
        bool const isItsOwn = isCalledByBusLibrary(trace);
        isWrittenByIt = isWrittenByIt || (isItsOwn && isWrite != 0);
        isWrittenByOthers = isWrittenByOthers || (!isItsOwn && isWrite != 0);
        if (isItsOwn && isFree(trace))
        {
            return true;
        }
        allAreItsOwn = allAreItsOwn && isItsOwn;
    }
    for (int i = 0; i < stacks; ++i)
    {
        void* trace[TRACE_SIZE] = {};
        __tsan_get_report_stack(report, static_cast<unsigned long>(i), trace, TRACE_SIZE);
        allAreItsOwn = allAreItsOwn && isCalledByBusLibrary(trace);
    }
    return allAreItsOwn || (isWrittenByIt && !isWrittenByOthers);
}

} // namespace

namespace __tsan
{

class ReportDesc;

/// Asked by the sanitizer before it prints a report; true drops it.
bool OnReport(ReportDesc const* report, bool suppressed);

bool OnReport(ReportDesc const* report, bool suppressed)
{
    return suppressed || isBusLibrarysOwn(const_cast<ReportDesc*>(report));
}

} // namespace __tsan
