#include "Options.h"

#include "Failure.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace
{

constexpr long MAX_SECONDS = 24L * 60 * 60;

/// An option, and not a negative number or a lone dash.
bool isOption(std::string const& word)
{
    return word.size() > 1 && word[0] == '-' && std::isdigit(static_cast<unsigned char>(word[1])) == 0 &&
           word[1] != '.';
}

std::chrono::milliseconds parseSeconds(std::string const& text)
{
    char* end = nullptr;
    double const seconds = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(seconds >= 0.001 && seconds <= static_cast<double>(MAX_SECONDS)))
    {
        throw CFailure(EExit::Usage, "'" + text + "' is no time-out: seconds are wanted, as in --timeout 2.5");
    }
    return std::chrono::milliseconds(static_cast<long>(seconds * 1000));
}

long parseCount(std::string const& text)
{
    char* end = nullptr;
    long const count = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || count < 1)
    {
        throw CFailure(EExit::Usage, "'" + text + "' is no count: a number from 1 up is wanted, as in --count 3");
    }
    return count;
}

std::size_t distance(std::string const& a, std::string const& b)
{
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j)
    {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i)
    {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j)
        {
            std::size_t const changed = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, changed});
        }
    }
    return row[b.size()];
}

/// Reads the words one after the other; a value stands behind its option or, with "=", in it.
class CReader
{
public:
    explicit CReader(std::vector<std::string> const& arguments) : m_arguments(arguments) {}

    SOptions Read()
    {
        for (; m_next < m_arguments.size(); ++m_next)
        {
            std::string const& word = m_arguments[m_next];
            if (m_onlyWords || !isOption(word))
            {
                ReadWord(word);
            }
            else if (word == "--")
            {
                m_onlyWords = true;
            }
            else
            {
                ReadOption(word.substr(0, word.find('=')), word);
            }
        }
        return m_options;
    }

private:
    void ReadWord(std::string const& word)
    {
        if (m_options.command.empty())
        {
            m_options.command = word;
        }
        else
        {
            m_options.words.push_back(word);
        }
    }

    void ReadOption(std::string const& name, std::string const& word)
    {
        if (name == "--timeout")
        {
            m_options.timeout = parseSeconds(ValueOf(name, word));
        }
        else if (name == "--count")
        {
            m_options.count = parseCount(ValueOf(name, word));
        }
        else if (!ReadSwitch(word))
        {
            throw CFailure(EExit::Usage,
                           "unknown option '" + word + "'" +
                               suggestion(name, {"--ask", "--count", "--help", "--json", "--timeout", "--version"}));
        }
        m_options.given.push_back(name);
    }

    bool ReadSwitch(std::string const& word)
    {
        if (word == "--help" || word == "-h")
        {
            return m_options.help = true;
        }
        if (word == "--version")
        {
            return m_options.version = true;
        }
        if (word == "--json")
        {
            return m_options.json = true;
        }
        if (word == "--ask")
        {
            return m_options.ask = true;
        }
        return false;
    }

    std::string ValueOf(std::string const& name, std::string const& word)
    {
        if (word.size() > name.size())
        {
            return word.substr(name.size() + 1);
        }
        if (++m_next == m_arguments.size())
        {
            throw CFailure(EExit::Usage, "the option " + name + " wants a value");
        }
        return m_arguments[m_next];
    }

    std::vector<std::string> const& m_arguments;
    std::size_t m_next = 0;
    bool m_onlyWords = false;
    SOptions m_options;
};

} // namespace

SOptions parseOptions(std::vector<std::string> const& arguments)
{
    return CReader(arguments).Read();
}

std::string closest(std::string const& word, std::vector<std::string> const& candidates)
{
    std::string best;
    std::size_t bestDistance = word.size() < 4 ? 1 : 2; // further away it is another word
    for (std::string const& candidate : candidates)
    {
        std::size_t const d = distance(word, candidate);
        if (d <= bestDistance && (best.empty() || d < bestDistance))
        {
            best = candidate;
            bestDistance = d;
        }
    }
    return best;
}

std::string suggestion(std::string const& word, std::vector<std::string> const& candidates)
{
    std::string const meant = closest(word, candidates);
    return meant.empty() ? "" : "; did you mean '" + meant + "'?";
}
