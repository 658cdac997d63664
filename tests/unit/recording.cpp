#include "unit/recording.h"

#include <windows.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <sstream>
#include <vector>

namespace recording {
namespace {

using Lines = std::vector<std::string>;
using Suite = std::vector<std::pair<std::string, Lines>>;  // tests in the order of the file

std::map<std::string, Suite> seen;
std::vector<Entry> running;

const testing::TestInfo& runningTest() {
    return *testing::UnitTest::GetInstance()->current_test_info();
}

bool isRecording() {
    return std::getenv("TALVIK_RECORD") != nullptr;
}

std::string path(const std::string& suite) {
    const char* const folder = std::getenv("TALVIK_RECORDINGS");
    return (folder != nullptr ? std::string(folder) : "tests/unit/recorded") + "/" + suite + ".txt";
}

Suite read(const std::string& name) {
    Suite suite;
    std::ifstream file(path(name), std::ios::binary);
    for (std::string line; std::getline(file, line);)
        if (const std::size_t end = line.find("] "); line.starts_with('[') && end != std::string::npos)
            suite.push_back({line.substr(1, end - 1), {line.substr(end + 2)}});
        else if (!suite.empty())
            suite.back().second.push_back(line);
    return suite;
}

Lines* find(Suite& suite, const std::string& test) {
    for (auto& [name, lines] : suite)
        if (name == test)
            return &lines;
    return nullptr;
}

Lines recorded(const testing::TestInfo& test) {
    static std::map<std::string, Suite> suites;
    const auto [suite, isNew] = suites.try_emplace(test.test_suite_name());
    if (isNew)
        suite->second = read(test.test_suite_name());
    const Lines* const lines = find(suite->second, test.name());
    return lines != nullptr ? *lines : Lines();
}

bool isTest(const std::string& suite, const std::string& name) {
    const auto& tests = *testing::UnitTest::GetInstance();
    for (int i = 0; i < tests.total_test_suite_count(); ++i)
        for (int j = 0; suite == tests.GetTestSuite(i)->name() && j < tests.GetTestSuite(i)->total_test_count(); ++j)
            if (name == tests.GetTestSuite(i)->GetTestInfo(j)->name())
                return true;
    return false;
}

// Words and what is between them, in turns.
Lines split(const std::string& text) {
    Lines pieces = {""};
    for (const char c : text) {
        const bool isOfWord = std::isalnum(static_cast<unsigned char>(c)) || std::strchr("._:-&", c) != nullptr;
        if (isOfWord == (pieces.size() % 2 == 1))
            pieces.emplace_back();
        pieces.back() += c;
    }
    return pieces;
}

// Several texts in one, "{a, b, c}" where they differ; nothing when they differ in too much to be read like that: more
// in words than in numbers.
std::optional<std::string> merged(const std::vector<std::string>& texts, int mostDifferences, int mostWords) {
    std::vector<Lines> split;
    for (const std::string& text : texts) {
        split.push_back(recording::split(text));
        if (split.back().size() != split.front().size())
            return std::nullopt;
    }
    std::string result;
    for (std::size_t i = 0; i < split.front().size(); ++i) {
        std::string all;
        bool differs = false;
        for (const Lines& one : split) {
            all += (all.empty() ? "{" : ", ") + one[i];
            differs = differs || one[i] != split.front()[i];
        }
        if (differs && all.find_first_of("0123456789") == std::string::npos)
            --mostWords;
        if (differs && (i % 2 == 0 || --mostDifferences < 0 || mostWords < 0))
            return std::nullopt;
        result += differs ? all + '}' : split.front()[i];
    }
    return result;
}

using Calls = std::vector<const Entry*>;

// The line of these calls; nothing when one line does not do for all.
std::optional<std::string> lineOf(const Calls& calls) {
    std::vector<std::string> names, outcomes;
    std::string listed;
    for (const Entry* const call : calls) {
        listed += (names.empty() ? "" : "; ") + call->name;
        names.push_back(call->name);
        outcomes.push_back(call->outcome);
    }
    const auto outcome = merged(outcomes, 10, 3);
    return outcome ? std::optional(merged(names, 2, 2).value_or(listed) + " = " + *outcome) : std::nullopt;
}

// The running test's calls, those together that share a line: with the call before, or with the first that is answered
// alike, as long as that is read at a glance. A name that several calls go by keeps its place, or their order would be
// lost.
std::vector<Calls> calls() {
    constexpr std::size_t longest = 400;
    std::vector<Calls> groups;
    std::size_t last = 0;
    for (const Entry& call : running) {
        const auto lineWith = [&](Calls group) {
            group.push_back(&call);
            return lineOf(group);
        };
        const auto isNamesake = [&](const Entry& other) { return other.name == call.name; };
        const auto takesIt = [&](const Calls& group) {
            return lineWith(group).value_or(std::string(longest, ' ')).size() < longest;
        };
        if (groups.empty() || !lineWith(groups[last])) {
            last = std::ranges::count_if(running, isNamesake) > 1
                       ? groups.size()
                       : std::ranges::find_if(groups, takesIt) - groups.begin();
            groups.resize(std::max(groups.size(), last + 1));
        }
        groups[last].push_back(&call);
    }
    return groups;
}

std::map<DWORD, std::string> byCode(std::initializer_list<std::int64_t> codes, const std::string& names) {
    std::map<DWORD, std::string> map;
    std::istringstream words(names);
    for (const std::int64_t code : codes) {
        std::getline(words >> std::ws, map[static_cast<DWORD>(code)], ',');
    }
    return map;
}

// Tells the first difference.
void compare(const Lines& expected, const Lines& lines, const std::vector<std::source_location>& where) {
    for (std::size_t i = 0; i < std::max(expected.size(), lines.size()); ++i) {
        const std::string then = i < expected.size() ? expected[i] : "(nothing)";
        const std::string now = i < lines.size() ? lines[i] : "(nothing)";
        if (then == now)
            continue;
        const auto& at = where.empty() ? std::source_location::current() : where[std::min(i, where.size() - 1)];
        const auto same = static_cast<std::size_t>(std::ranges::mismatch(then, now).in1 - then.begin());
        ADD_FAILURE_AT(at.file_name(), static_cast<int>(at.line()))
            << "on record: " << then << "\n      now: " << now << "\n     from: " << now.substr(same);
        return;
    }
}

}  // namespace

void add(Entry entry) {
    for (std::size_t at = 0; (at = entry.outcome.find('\n', at)) != std::string::npos;)
        entry.outcome.replace(at, 1, "\\n");
    running.push_back(std::move(entry));
}

void close() {
    Lines lines;
    std::vector<std::source_location> where;
    for (const Calls& group : calls()) {
        lines.push_back(*lineOf(group));
        where.push_back(group.front()->where);
    }
    running.clear();
    if (isRecording())
        seen[runningTest().test_suite_name()].emplace_back(runningTest().name(), lines);
    else
        compare(recorded(runningTest()), lines, where);
}

void save() {
    for (auto& [name, tests] : seen) {
        Suite suite = read(name);
        for (const auto& [test, lines] : tests)
            if (Lines* const old = find(suite, test))
                *old = lines;
            else
                suite.emplace_back(test, lines);
        std::erase_if(suite, [&](const auto& test) { return test.second.empty() || !isTest(name, test.first); });
        if (suite.empty())
            continue;
        std::ofstream file(path(name), std::ios::binary);
        for (const auto& [test, lines] : suite) {
            file << '[' << test << "] ";
            for (const std::string& line : lines)
                file << line << '\n';
        }
    }
}

std::string codeName(unsigned long code) {
#define VALUES_AND_NAMES(...) {__VA_ARGS__}, #__VA_ARGS__
    static const auto names = byCode(VALUES_AND_NAMES(
        ERROR_SUCCESS, ERROR_ACCESS_DENIED, ERROR_CALL_NOT_IMPLEMENTED, ERROR_INVALID_PARAMETER, ERROR_MORE_DATA,
        ERROR_NO_MORE_ITEMS, NTE_BAD_ALGID, NTE_BAD_DATA, NTE_BAD_FLAGS, NTE_BAD_HASH, NTE_BAD_KEY, NTE_BAD_LEN,
        NTE_BAD_SIGNATURE, NTE_BAD_TYPE, NTE_BAD_UID, NTE_BUFFER_TOO_SMALL, NTE_FAIL, NTE_INTERNAL_ERROR,
        NTE_INVALID_HANDLE, NTE_INVALID_PARAMETER, NTE_KEYSET_ENTRY_BAD, NTE_NO_KEY, NTE_NO_MEMORY, NTE_NO_MORE_ITEMS,
        NTE_NOT_FOUND, NTE_NOT_SUPPORTED, NTE_PROVIDER_DLL_FAIL, NTE_SILENT_CONTEXT, NTE_TOKEN_KEYSET_STORAGE_FULL,
        NTE_VALIDATION_FAILED));
#undef VALUES_AND_NAMES
    if (const auto found = names.find(static_cast<DWORD>(code)); found != names.end())
        return found->second;
    char digits[9];
    std::snprintf(digits, sizeof digits, "%08lX", code & 0xFFFFFFFF);
    return digits;
}

std::string readable(const std::string& text, const std::map<std::string, std::string>& names) {
    static const std::pair<std::string, std::string> usual[] = {
        {" | Password dialog show window | Password dialog show window before | Password dialog show window after",
         " | (dialog)"},
        {" | PIN already validated -- no need to ask again", " | (PIN known)"},
        {" | Password not validated or empty -- ask for PIN", " | (PIN unknown)"},
        {" | Monitor thread already running, not starting again.", " | (monitor)"},
        {" > init(0, null, 2) > getConnectedDeviceList(false, null)", " > (devices)"}};
    std::string result;
    for (std::size_t at = 0, end = 0; at < text.size(); at = end) {
        while (end < text.size() && std::isalnum(static_cast<unsigned char>(text[end])))
            ++end;
        const std::string word = text.substr(at, end - at);
        const auto name = names.find(word);
        const bool isHex = word.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
        result += name != names.end() ? name->second : isHex ? shortened(word) : word;
        if (end == at)
            result += text[end++];
    }
    for (const auto& [lines, word] : usual)
        for (std::size_t at; (at = result.find(lines)) != std::string::npos;)
            result.replace(at, lines.size(), word);
    return result;
}

std::string shortened(const std::string& hex) {
    if (hex.size() >= 8 && hex.size() % 2 == 0 && hex.substr(2) == hex.substr(0, hex.size() - 2))
        return hex.substr(0, 2) + ':' + std::to_string(hex.size() / 2);  // of equal bytes
    if (hex.size() <= 48)
        return hex;
    std::uint32_t sum = 2166136261u;  // FNV-1a
    for (const char digit : hex)
        sum = (sum ^ static_cast<unsigned char>(digit)) * 16777619u;
    char tail[32];
    std::snprintf(tail, sizeof tail, ":%u:%08x", static_cast<unsigned int>(hex.size() / 2), sum);
    return hex.substr(0, 12) + ".." + hex.substr(hex.size() - 8) + tail;
}

}  // namespace recording
