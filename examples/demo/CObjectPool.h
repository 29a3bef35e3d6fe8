#pragma once

#include <cstddef>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// Writes one whole line, whichever thread it comes from.
inline void say(std::string const& text)
{
    std::cout << ("[server] " + text + "\n") << std::flush;
}

/// The objects of one actor type: owned here, lent to the actors.
///
/// An actor whose call was killed goes without its object being destroyed, because nobody can tell what the
/// killed function left half done. A server that keeps its objects itself decides what becomes of them:
/// this one lets them be and ends them with the process.
template <class T>
class CObjectPool
{
public:
    explicit CObjectPool(std::string typeName) : m_typeName(std::move(typeName)) {}

    void* Make()
    {
        auto object = std::make_unique<T>();
        void* const lent = object.get();
        int number = 0;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            number = ++m_lastNumber;
            m_objects.push_back({number, std::move(object)});
        }
        say("made " + m_typeName + " #" + std::to_string(number));
        return lent;
    }

    void Destroy(void* lent)
    {
        SEntry doomed;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            for (std::size_t i = 0; i < m_objects.size(); ++i)
            {
                if (m_objects[i].object.get() == lent)
                {
                    doomed = std::move(m_objects[i]);
                    m_objects.erase(m_objects.begin() + static_cast<std::ptrdiff_t>(i));
                    break;
                }
            }
        }
        doomed.object.reset(); // unlocked: a destructor may wait for a thread of its own
        say("destroyed " + m_typeName + " #" + std::to_string(doomed.number));
    }

    ~CObjectPool()
    {
        for (SEntry& left : m_objects)
        {
            left.object.reset();
            say("ended " + m_typeName + " #" + std::to_string(left.number) + ", whose actor was lost in a kill");
        }
    }

private:
    struct SEntry
    {
        int number = 0;
        std::unique_ptr<T> object;
    };

    std::string const m_typeName;
    std::mutex m_mutex; ///< guards what follows
    int m_lastNumber = 0;
    std::vector<SEntry> m_objects;
};
