// What a line of the log costs.
#include <vector>

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

void addQuestions(Json& rows, const char* id, const char* name, double questions) {
    rows.push_back({{"section", "questions"}, {"id", id}, {"name", name}, {"questions", questions}});
}

// Of a thread that does `work` again and again while the clock ticks.
double questionsPerTick(const Work& work) {
    constexpr int ticks = 8;
    work();  // has asked for the tick that is now
    const long questions = queriesOf([&] {
        ULONGLONG last = GetTickCount64();
        for (int seen = 0; seen < ticks;) {
            work();
            const ULONGLONG now = GetTickCount64();
            seen += now == last ? 0 : 1;
            last = now;
        }
    });
    return static_cast<double>(questions) / ticks;
}

void countQuestions(const BenchToken& token, Json& rows) {
    const Bytes message(1024, 0x5A);
    const Work sign = [&] { signThroughCsp(token.provider, token.context, message); };
    // In each of several periods, of which the median counts: where the thread was interrupted between two calls, the
    // next one comes after a pause.
    std::vector<double> perTick;
    for (int period = 0; period < 21; ++period) {
        perTick.push_back(questionsPerTick(sign));
    }
    addQuestions(rows, "log.loop", "questions for the level per tick of the clock, signing in a loop",
                 summarize(perTick).median);
    HCRYPTHASH hash = 0;
    const Work isolatedCalls[] = {
        [&] { require(token.provider.createHash(token.context, CALG_SHA_256, 0, 0, &hash), "CPCreateHash"); },
        [&] { require(token.provider.destroyHash(token.context, hash), "CPDestroyHash"); }};
    int calls = 0;
    long questions = 0;
    for (int i = 0; i < 40; ++i) {
        Sleep(20);
        const ULONGLONG tick = GetTickCount64();
        const long asked = queriesOf(isolatedCalls[i % 2]);
        if (GetTickCount64() == tick) {  // the next tick has a question of its own
            questions += asked;
            ++calls;
        }
    }
    require(calls > 0, "no call within one tick of the clock");
    addQuestions(rows, "log.isolated", "questions for the level in a call that comes after a pause",
                 static_cast<double>(questions) / calls);
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
