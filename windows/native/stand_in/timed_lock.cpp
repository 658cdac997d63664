// std::timed_mutex waits through pthread_mutex_clocklock, which this version of the thread sanitizer does not know: it
// would see unlocks without locks. The same wait by the wall clock, which it knows.
#include <pthread.h>
#include <time.h>

namespace {

constexpr long long second = 1000000000;

long long nanoseconds(const timespec& time) {
    return time.tv_sec * second + time.tv_nsec;
}

}  // namespace

extern "C" int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const timespec* deadline) {
    timespec now, wallNow;
    clock_gettime(clock, &now);
    clock_gettime(CLOCK_REALTIME, &wallNow);
    const long long end = nanoseconds(wallNow) + nanoseconds(*deadline) - nanoseconds(now);
    const timespec wallDeadline = {static_cast<time_t>(end / second), static_cast<long>(end % second)};
    return pthread_mutex_timedlock(mutex, &wallDeadline);
}
