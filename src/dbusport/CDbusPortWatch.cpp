#include "CDbusPortWatch.h"

#include <nelo_rpc/Cancellation.h>

#include "../SystemLog.h"
#include "CDbusPortIo.h"
#include "DbusPointers.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <utility>
#include <vector>

namespace nelo_rpc
{

namespace
{

/// Names that go. The bus cannot be asked for unique ones only.
constexpr char const* NAMES_THAT_GO = "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                                      "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg2=''";

/// How much may wait to be sent before the bus is asked all the same. Its answer comes behind what it was sent before.
constexpr long MUCH_TO_SEND = 64 * 1024;

constexpr std::uint32_t NO_GROUP = std::numeric_limits<std::uint32_t>::max();

void logFailure(std::string const& cause)
{
    logError() << "CDbusPort::WatchPeers failed: " << cause;
}

bool isUnique(std::string const& name)
{
    return !name.empty() && name.front() == ':';
}

/// The group that a process acts for, or NO_GROUP.
std::uint32_t groupOfProcess(std::int32_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string word; status >> word;)
    {
        std::uint32_t real = 0;
        std::uint32_t effective = 0;
        if (word == "Gid:" && status >> real >> effective)
        {
            return effective;
        }
    }
    return NO_GROUP;
}

/// The bus names all groups in order, and not which is the primary one. The process may have ended and its id gone to
/// another, so what its id says counts only if the bus says it too.
std::uint32_t primaryOf(std::vector<std::uint32_t> const& groups, std::int32_t pid)
{
    if (groups.empty())
    {
        return NO_GROUP;
    }
    std::uint32_t const likely = groups.size() == 1 ? groups.front() : groupOfProcess(pid);
    bool const isMember = std::find(groups.begin(), groups.end(), likely) != groups.end();
    return isMember ? likely : *std::min_element(groups.begin(), groups.end());
}

std::uint32_t numberIn(DBusMessageIter* variant, bool& found)
{
    DBusBasicValue value{};
    if (dbus_message_iter_get_arg_type(variant) == DBUS_TYPE_UINT32)
    {
        dbus_message_iter_get_basic(variant, &value);
        found = true;
    }
    return value.u32;
}

std::vector<std::uint32_t> numbersIn(DBusMessageIter* variant)
{
    if (dbus_message_iter_get_arg_type(variant) != DBUS_TYPE_ARRAY ||
        dbus_message_iter_get_element_type(variant) != DBUS_TYPE_UINT32)
    {
        return {};
    }
    DBusMessageIter elements;
    dbus_message_iter_recurse(variant, &elements);
    std::uint32_t const* numbers = nullptr;
    int count = 0;
    dbus_message_iter_get_fixed_array(&elements, &numbers, &count);
    return {numbers, numbers + count};
}

/// Reads the dictionary of the bus; nothing without a user and a process.
std::optional<SPeerCredentials> credentialsIn(DBusMessage* answer)
{
    if (!dbus_message_has_signature(answer, "a{sv}"))
    {
        return std::nullopt;
    }
    SPeerCredentials credentials;
    std::vector<std::uint32_t> groups;
    bool hasUser = false;
    bool hasProcess = false;
    DBusMessageIter arguments;
    DBusMessageIter entries;
    dbus_message_iter_init(answer, &arguments);
    dbus_message_iter_recurse(&arguments, &entries);
    for (; dbus_message_iter_get_arg_type(&entries) == DBUS_TYPE_DICT_ENTRY; dbus_message_iter_next(&entries))
    {
        DBusMessageIter entry;
        DBusMessageIter variant;
        DBusBasicValue key{};
        dbus_message_iter_recurse(&entries, &entry);
        dbus_message_iter_get_basic(&entry, &key);
        dbus_message_iter_next(&entry);
        dbus_message_iter_recurse(&entry, &variant);
        if (std::strcmp(key.str, "UnixUserID") == 0)
        {
            credentials.uid = numberIn(&variant, hasUser);
        }
        else if (std::strcmp(key.str, "ProcessID") == 0)
        {
            credentials.pid = static_cast<std::int32_t>(numberIn(&variant, hasProcess));
        }
        else if (std::strcmp(key.str, "UnixGroupIDs") == 0)
        {
            groups = numbersIn(&variant);
        }
    }
    if (!hasUser || !hasProcess)
    {
        return std::nullopt;
    }
    credentials.gid = primaryOf(groups, credentials.pid);
    return credentials;
}

/// The names in the answer to "ListNames".
std::set<std::string> namesIn(DBusMessage* answer)
{
    std::set<std::string> names;
    DBusMessageIter arguments;
    DBusMessageIter name;
    dbus_message_iter_init(answer, &arguments);
    dbus_message_iter_recurse(&arguments, &name);
    for (; dbus_message_iter_get_arg_type(&name) == DBUS_TYPE_STRING; dbus_message_iter_next(&name))
    {
        DBusBasicValue value{};
        dbus_message_iter_get_basic(&name, &value);
        names.emplace(value.str);
    }
    return names;
}

} // namespace

std::string CDbusPort::GetPeerName(int connectionId) const
{
    CCancellationGuard const guard;
    std::lock_guard<std::recursive_mutex> const lock(m_connectionsMutex);
    auto const entry = m_connectionNames.find(connectionId);
    return entry == m_connectionNames.end() ? "" : entry->second;
}

std::optional<SPeerCredentials> CDbusPort::GetPeerCredentials(int connectionId)
{
    CCancellationGuard const guard;
    internal_guarded::CRun run;
    run.Enter(m_io->senders);
    std::string const name = GetPeerName(connectionId);
    auto const watch = m_watch;
    bool lost = false;
    std::optional<SPeerCredentials> credentials;
    {
        std::lock_guard<std::mutex> const lock(watch->mutex);
        auto const kept = watch->credentials.find(name);
        if (kept != watch->credentials.end())
        {
            return kept->second;
        }
    }
    // Without a lock: a listener that asks too must not wait for a thread whose answer it has to take. Threads that ask
    // at the same moment all ask the bus.
    dbus::MessagePointer const answer(AskBus("GetConnectionCredentials", name, lost));
    credentials = answer == nullptr ? std::nullopt : credentialsIn(answer.get());
    if (credentials && isUnique(name))
    {
        std::lock_guard<std::mutex> const lock(m_watch->mutex);
        m_watch->credentials[name] = *credentials;
    }
    if (lost)
    {
        watch->TellLoss();
    }
    return credentials;
}

bool CDbusPort::WatchPeers(std::function<void(int connectionId)> onGone)
{
    CCancellationGuard const guard;
    if (!m_bUseAsync || m_connection == nullptr || !m_io->filtering)
    {
        return false; // nobody reads what the bus tells
    }
    // Not locked: this waits for a listener that is running, which may send.
    m_watch->peers.Set(std::move(onGone));
    if (!MatchNamesThatGo())
    {
        m_watch->peers.Set({});
        return false;
    }
    AskForNames();
    return true;
}

bool CDbusPort::MatchNamesThatGo()
{
    std::lock_guard<std::recursive_mutex> const lock(m_sendMutex);
    // Not what the caller set: another thread may have been quicker.
    bool const wanted = m_options.rememberPeers || m_io->unread.IsLimited() || m_watch->peers.IsSet();
    if (wanted && !m_watch->matched)
    {
        m_watch->watched = true;
        dbus::MessagePointer const question(
            dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "AddMatch"));
        dbus_message_append_args(question.get(), DBUS_TYPE_STRING, &NAMES_THAT_GO, DBUS_TYPE_INVALID);
        // Not waited for: what is asked behind it is answered behind it.
        m_watch->matched =
            m_io->awaited.Send(m_connection, question.get(), [this](DBusMessage* answer) { HandleMatch(answer); });
        if (!m_watch->matched)
        {
            logFailure("the connection to the bus is closed");
            return false;
        }
    }
    else if (!wanted && m_watch->matched)
    {
        dbus_bus_remove_match(m_connection, NAMES_THAT_GO, nullptr); // does not wait for the answer
        m_watch->matched = false;
    }
    return true;
}

void CDbusPort::HandleMatch(DBusMessage* answer)
{
    if (answer == nullptr)
    {
        return; // the bus is lost
    }
    dbus::CError error;
    if (!dbus_set_error_from_message(error.Get(), answer))
    {
        // Not before the receiver, which holds its first dispatch back, takes in who has left.
        m_watch->remembers = m_options.rememberPeers;
        return;
    }
    {
        std::lock_guard<std::recursive_mutex> const lock(m_sendMutex);
        m_watch->matched = false; // the next watch asks again
    }
    logFailure(error.Message());
}

bool CDbusPort::MayRemember(std::string const& name) const
{
    return m_watch->remembers && isUnique(name) && dbus_connection_get_is_connected(m_connection) &&
           dbus_connection_get_outgoing_size(m_connection) <= MUCH_TO_SEND;
}

bool CDbusPort::IsThere(std::string const& name, bool& lost) const
{
    auto const watch = m_watch; // the port may be destroyed while the question is open
    bool const mayRemember = MayRemember(name);
    unsigned long goneBefore = 0;
    {
        std::lock_guard<std::mutex> const lock(watch->mutex);
        if (mayRemember && watch->present.count(name) != 0)
        {
            return true;
        }
        goneBefore = watch->goneCount;
    }
    bool const hasOwner = HasOwner(name, lost);
    std::lock_guard<std::mutex> const lock(watch->mutex);
    // News that came meanwhile may be of this peer, and come only once.
    if (hasOwner && mayRemember && goneBefore == watch->goneCount)
    {
        watch->present.insert(name);
    }
    return hasOwner;
}

void CDbusPort::AskForNames()
{
    // A peer whose call was taken in before the match was there may have gone before it too, so nothing would tell of
    // it. The receiver takes the bus's messages in the order in which the bus sent them, and the answer to this
    // question is one of them. When it comes, every peer heard of before it has its connection id, and those that the
    // answer does not name have gone. A peer heard of after it was there when the bus answered, so its going comes as
    // a signal, and behind its last message: nothing is missed, and no peer needs a question of its own.
    if (!m_watch->peers.IsSet())
    {
        return;
    }
    dbus::MessagePointer const question(
        dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "ListNames"));
    std::lock_guard<std::recursive_mutex> const lock(m_sendMutex);
    m_io->awaited.Send(m_connection, question.get(), [this](DBusMessage* answer) { HandleNames(answer); });
}

bool CDbusPort::HandleNews(DBusMessage* message, std::string const& sender)
{
    if (!m_watch->watched || sender != DBUS_SERVICE_DBUS ||
        !dbus_message_is_signal(message, DBUS_INTERFACE_DBUS, "NameOwnerChanged"))
    {
        return false;
    }
    char const* name = nullptr;
    char const* oldOwner = nullptr;
    char const* newOwner = nullptr;
    if (dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &oldOwner, DBUS_TYPE_STRING,
                              &newOwner, DBUS_TYPE_INVALID) &&
        *newOwner == '\0' && isUnique(name))
    {
        HandleGoneName(name);
    }
    return true;
}

void CDbusPort::HandleGoneName(std::string const& name)
{
    {
        std::lock_guard<std::mutex> const lock(m_watch->mutex);
        m_watch->present.erase(name);
        ++m_watch->goneCount;
    }
    m_io->unread.Forget(name);
    std::vector<int> gone;
    {
        std::lock_guard<std::recursive_mutex> const lock(m_connectionsMutex);
        auto const last = m_connectionIds.find(name);
        if (last == m_connectionIds.end())
        {
            return;
        }
        auto const [begin, end] = m_watch->earlierIds.equal_range(name);
        std::transform(begin, end, std::back_inserter(gone), [](auto const& earlier) { return earlier.second; });
        gone.push_back(last->second);
    }
    for (int const connectionId : gone)
    {
        m_watch->peers.Tell(connectionId);
    }
}

void CDbusPort::HandleNames(DBusMessage* names)
{
    if (names == nullptr)
    {
        return; // the bus is lost, of which nobody is told as a peer's end
    }
    if (!dbus_message_has_signature(names, "as"))
    {
        logFailure(types::toString(dbus_message_get_error_name(names)));
        return;
    }
    std::set<std::string> const present = namesIn(names);
    std::vector<std::string> gone;
    {
        std::lock_guard<std::recursive_mutex> const lock(m_connectionsMutex);
        for (auto const& known : m_connectionIds)
        {
            if (isUnique(known.first) && present.count(known.first) == 0)
            {
                gone.push_back(known.first);
            }
        }
    }
    for (std::string const& name : gone)
    {
        HandleGoneName(name);
    }
}

bool CDbusPort::IsOpen() const
{
    CCancellationGuard const guard;
    return m_connection != nullptr && (!m_bUseAsync || m_io->filtering) && !m_watch->lost &&
           dbus_connection_get_is_connected(m_connection);
}

void CDbusPort::SetLostListener(std::function<void()> listener)
{
    CCancellationGuard const guard;
    if (listener)
    {
        // The loss may be noticed between the two steps below, and then both would tell.
        listener = [listener = std::move(listener), told = std::make_shared<std::atomic<bool>>(false)] {
            if (!told->exchange(true))
            {
                listener();
            }
        };
    }
    m_watch->lostListener.Set(std::move(listener));
    if (m_watch->lost)
    {
        m_watch->lostListener.Call();
    }
}

bool CDbusPort::IsLost() const
{
    // An asynchronous port has a receiver to notice it.
    return !m_bUseAsync && !dbus_connection_get_is_connected(m_connection);
}

} // namespace nelo_rpc
