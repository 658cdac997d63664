// What a line of the log costs.
#include "level_query.h"
#include "log/log.h"
#include "sections.h"
#include "sequences.h"

namespace talvik::bench {
namespace {

constexpr char settingsKey[] = "Software\\Quorvel\\Talvik";

// The log level of the prefix for as long as one exists.
class LogLevel {
  public:
    explicit LogLevel(DWORD level) { set(level); }
    ~LogLevel() { set(quiet); }
    LogLevel(const LogLevel&) = delete;
    LogLevel& operator=(const LogLevel&) = delete;

  private:
    static constexpr DWORD quiet = 2;

    static void set(DWORD level) {
        RegSetKeyValueA(HKEY_LOCAL_MACHINE, settingsKey, "logLevel", REG_DWORD, &level, sizeof level);
    }
};

void addRow(Json& rows, const char* id, const char* name, const Summary& microseconds) {
    rows.push_back({{"section", "log"}, {"id", id}, {"name", name}, {"time", toJson(microseconds)}});
}

// Milliseconds between two ticks of the clock.
double clockStep() {
    constexpr int steps = 20;
    auto nextTick = [last = GetTickCount64()]() mutable {
        ULONGLONG now = GetTickCount64();
        while (now == last) {
            now = GetTickCount64();
        }
        return last = now;
    };
    const ULONGLONG begin = nextTick();
    ULONGLONG end = begin;
    for (int step = 0; step < steps; ++step) {
        end = nextTick();
    }
    return static_cast<double>(end - begin) / steps;
}

void addQuestions(Json& rows, const char* id, const char* name, double questions) {
    rows.push_back({{"section", "questions"}, {"id", id}, {"name", name}, {"questions", questions}});
}

void countQuestions(const BenchToken& token, Json& rows) {
    const Bytes message(1024, 0x5A);
    const Work sign = [&] { signThroughCsp(token.provider, token.context, message); };
    const ULONGLONG begin = GetTickCount64();
    const long inALoop = queriesOf([&] {
        while (GetTickCount64() - begin < 2000) {
            sign();
        }
    });
    // Ticks are not milliseconds: as many as the clock showed.
    addQuestions(rows, "log.loop", "questions for the level per tick of the clock, signing in a loop",
                 inALoop / (2000 / clockStep()));
    constexpr int calls = 20;
    const long isolated = queriesOf([&] {
        for (int i = 0; i < calls; ++i) {
            Sleep(20);
            HCRYPTHASH hash = 0;
            require(token.provider.createHash(token.context, CALG_SHA_256, 0, 0, &hash), "CPCreateHash");
            Sleep(20);
            require(token.provider.destroyHash(token.context, hash), "CPDestroyHash");
        }
    });
    addQuestions(rows, "log.isolated", "questions for the level in a call that comes after a pause",
                 static_cast<double>(isolated) / (2 * calls));
}

}  // namespace

void measureLogging(const BenchToken& token, Json& rows) {
    HKEY key = nullptr;
    require(RegOpenKeyExA(HKEY_LOCAL_MACHINE, settingsKey, 0, KEY_QUERY_VALUE, &key) == ERROR_SUCCESS, "RegOpenKeyEx");
    const Work query = [=] {
        DWORD level[8];
        DWORD size = sizeof level;
        RegGetValueA(key, nullptr, "logLevel", RRF_RT_ANY, nullptr, level, &size);
    };
    const Work debugLine = [] { logDebug("CPHashData: a line of the usual length, number ", 42); };
    const Work lineInACall = [=] {
        const ApplicationCall call;
        debugLine();
    };
    const Timings suppressed = measure({25, 4, 3}, {debugLine, lineInACall, query});
    addRow(rows, "log.query", "one query of the open registry key", suppressed.of(2));
    addRow(rows, "log.suppressed", "a suppressed DEBUG line in a call of its own", suppressed.of(0));
    addRow(rows, "log.suppressed.loop", "a suppressed DEBUG line in one of many calls", suppressed.of(1));
    RegCloseKey(key);
    countQuestions(token, rows);

    addRow(rows, "log.error", "an ERROR line",
           measure({}, {[] { logError("CPHashData: a line of the usual length"); }}).of(0));
    {
        const LogLevel debug(LOG_LEVEL_DEBUG);
        addRow(rows, "log.debug", "a DEBUG line", measure({}, {debugLine}).of(0));
    }
    const Bytes message(1024, 0x5A);
    const Work sign = [&] { signThroughCsp(token.provider, token.context, message); };
    const Timings signing = measure({}, {sign, [&] {
                                             const LogLevel debug(LOG_LEVEL_DEBUG);
                                             sign();
                                         }});
    addRow(rows, "log.sign.off", "a signature (CSP sequence), DEBUG off", signing.of(0));
    addRow(rows, "log.sign.on", "a signature (CSP sequence), DEBUG on", signing.of(1));
    rows.back()["times"] = toJson(signing.speed(0, 1));
}

}  // namespace talvik::bench
