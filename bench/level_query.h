// The provider's question for the log level, which it asks the registry anew at every line. To tell its cost from that
// of the provider's own work, it can be counted and answered here, without the registry.
#pragma once

#include <windows.h>

namespace talvik::bench {

// Takes over the provider's import of RegGetValueA. Once, before any measurement.
void watchLevelQueries(HMODULE provider);

// While one exists, the queries are answered at once: level 2, which leaves DEBUG lines off as the registry does here.
class AnsweredQueries {
  public:
    AnsweredQueries() noexcept;
    ~AnsweredQueries();
    AnsweredQueries(const AnsweredQueries&) = delete;
    AnsweredQueries& operator=(const AnsweredQueries&) = delete;
};

// Of this thread: the monitor's are not the application's.
long answeredQueryCount() noexcept;

// How many queries `work` makes when run once.
template <class Work>
long queriesOf(const Work& work) {
    const AnsweredQueries answered;
    const long before = answeredQueryCount();
    work();
    return answeredQueryCount() - before;
}

}  // namespace talvik::bench
