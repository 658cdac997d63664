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
    const Timings suppressed = measure({25, 4, 3}, {debugLine, query});
    const Summary perLine = suppressed.speed(1, 0);
    addRow(rows, "log.query", "one query of the open registry key", suppressed.of(1));
    addRow(rows, "log.suppressed", "a suppressed DEBUG line", suppressed.of(0));
    rows.back()["queries"] = toJson(perLine);
    RegCloseKey(key);

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
