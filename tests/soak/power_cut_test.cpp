// Kills at seeded moments lose nothing that was confirmed, win no PIN attempt, and block nobody.
//
// Every second process ends itself inside a file operation of the device library: before it, after it, or with half of
// a write done. The others are killed from outside after a random time. What the operating system has taken over
// survives both; a machine without power is not what this can show.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <set>

#include "virtual_token/fixture.h"

namespace talvik_test {
namespace {

constexpr DWORD cutExit = 77;

// --- the process that dies -------------------------------------------------------------------------------------------

int stepsLeft = 0;  // 0: none counts

void step() {
    if (stepsLeft > 0 && --stepsLeft == 0) {
        TerminateProcess(GetCurrentProcess(), cutExit);
        Sleep(INFINITE);
    }
}

// `operation` with a moment to die before it and one after it.
template <auto operation>
struct Watched;
template <class Result, class... Arguments, Result(WINAPI* operation)(Arguments...)>
struct Watched<operation> {
    static Result WINAPI call(Arguments... arguments) {
        step();
        const Result result = operation(arguments...);
        const DWORD error = GetLastError();
        step();
        SetLastError(error);
        return result;
    }
};

BOOL WINAPI writeInHalves(HANDLE file, const void* data, DWORD size, DWORD* written, OVERLAPPED* overlapped) {
    DWORD first = 0;
    step();
    if (!WriteFile(file, data, size / 2, &first, overlapped)) {
        return FALSE;
    }
    step();
    const BOOL done = WriteFile(file, static_cast<const char*>(data) + first, size - first, written, overlapped);
    *written += first;
    step();
    return done;
}

struct Hook {
    const char* name;
    void* replacement;
};
const Hook hooks[] = {
    {"CreateFileW", reinterpret_cast<void*>(Watched<CreateFileW>::call)},
    {"WriteFile", reinterpret_cast<void*>(writeInHalves)},
    {"SetFileTime", reinterpret_cast<void*>(Watched<SetFileTime>::call)},
    {"FlushFileBuffers", reinterpret_cast<void*>(Watched<FlushFileBuffers>::call)},
    {"MoveFileExW", reinterpret_cast<void*>(Watched<MoveFileExW>::call)},
    {"LockFileEx", reinterpret_cast<void*>(Watched<LockFileEx>::call)},
    {"DeleteFileW", reinterpret_cast<void*>(Watched<DeleteFileW>::call)},
};

// Puts the hooks in the place of what the device library imports; answers how many places there were.
int hookDeviceLibrary() {
    auto* const base = reinterpret_cast<unsigned char*>(GetModuleHandleA("TalvikDSCLibrary.dll"));
    const auto* const headers =
        reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const DWORD imports = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    int hooked = 0;
    for (auto* module = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports); module->Name != 0; ++module) {
        auto* name = reinterpret_cast<IMAGE_THUNK_DATA*>(base + module->OriginalFirstThunk);
        auto* place = reinterpret_cast<IMAGE_THUNK_DATA*>(base + module->FirstThunk);
        for (; name->u1.AddressOfData != 0; ++name, ++place) {
            const auto* const text = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + name->u1.AddressOfData)->Name;
            const auto* const hook = std::ranges::find_if(hooks, [text](const Hook& candidate) {
                return std::strcmp(candidate.name, reinterpret_cast<const char*>(text)) == 0;
            });
            if (hook != std::end(hooks)) {
                DWORD protection = 0;
                VirtualProtect(place, sizeof *place, PAGE_READWRITE, &protection);
                place->u1.Function = reinterpret_cast<ULONGLONG>(hook->replacement);
                VirtualProtect(place, sizeof *place, protection, &protection);
                ++hooked;
            }
        }
    }
    return hooked;
}

// Each line is with the system when the call returns.
void note(const std::string& line) {
    std::ofstream(scratch().path() / "journal", std::ios::app | std::ios::binary) << line + '\n' << std::flush;
}

void require(int status) {
    if (status != 0) {
        ExitProcess(static_cast<UINT>(status));
    }
}

std::string idOf(const unsigned char* id) {
    return hex(Bytes(id, id + 16));
}

// Works on the token, and keeps a journal of what it has begun ("try WHAT") and what was confirmed. `plan` is
// "SEED:STEP": it ends itself at that file operation of the device library's (0: it goes on until it is killed).
int workUntilCut(const std::string& plan) {
    std::mt19937 random(static_cast<unsigned>(std::stoul(plan)));
    if (hookDeviceLibrary() < static_cast<int>(std::size(hooks))) {
        return 1;
    }
    std::vector<Key> keys;
    int left = 3;
    note("left 3");
    stepsLeft = std::stoi(plan.substr(plan.find(':') + 1));
    for (;;) {
        const unsigned what = random() % 10;
        if (what < 3 && left > 1) {
            note("try wrong");
            login("0000", &left);
            note("left " + std::to_string(left));
        } else if (what < 5) {
            note("try login");
            require(login(pin, &left));
            note("left 3");
        } else if (what < 7 && !keys.empty()) {
            const std::string id = idOf(keys.back().id());
            note("try delete:" + id);
            require(talvik_deleteKeyPair(device, keys.back().id(), pin, true, nullptr));
            note("deleted " + id);
            keys.pop_back();
        } else if (what == 7 && random() % 4 == 0) {
            TalvikSymmetricKey key = aesRecord(Bytes(16), 0);
            note("try aes");
            require(talvik_importAesKey(device, pin, &key, nullptr));
            note("aes " + idOf(key.identifier));
        } else {
            note("try make");
            keys.push_back(generate(TALVIK_KEY_EC_P256, TALVIK_USAGE_SIGN));
            require(keys.back().status);
            note("made " + idOf(keys.back().id()));
        }
    }
}

const PlayedRole cutting("cut", workUntilCut);

// --- the one that looks afterwards -----------------------------------------------------------------------------------

class PowerCut : public VirtualTokenTest {
  protected:
    struct Journal {
        std::map<std::string, std::set<std::string>> ids;  // made, deleted, aes
        std::string pending;                               // what was begun and not confirmed
        int left = 3;                                      // attempts, as last confirmed
    };

    static Journal readJournal() {
        Journal journal;
        std::ifstream file(scratch().path() / "journal");
        for (std::string verb, value; file >> verb >> value;) {
            if (verb == "try") {
                journal.pending = value;
                continue;
            }
            journal.pending.clear();
            journal.ids[verb].insert(value);
            journal.left = verb == "left" ? std::stoi(value) : 3;  // whatever else succeeds has proven the PIN
        }
        return journal;
    }

    int attemptsInFile() const {
        const Bytes file = read(home() + "/T1.json");
        const std::string text(file.begin(), file.end());
        const std::string member = "\"attemptsLeft\":";
        return std::stoi(text.substr(text.find(member, text.find("\"userPin\"")) + member.size()));
    }

    void checkAttempts(const Journal& journal) const {
        const int left = attemptsInFile();
        const bool isRight = !journal.pending.empty() && journal.pending != "wrong";
        EXPECT_TRUE(left == journal.left || (!journal.pending.empty() && left == journal.left - 1) ||
                    (isRight && left == 3))
            << left << " attempts after " << journal.left << " and \"" << journal.pending << '"';
    }

    void checkObjects(Journal& journal) {
        std::set<std::string> present, aesKeys;
        EXPECT_EQ(generate(TALVIK_KEY_EC_P256, TALVIK_USAGE_SIGN).status, 0) << "the next process is blocked";
        const std::vector<TalvikKeyPair> keys = talvik_getKeyPairList(device, nullptr);
        for (const TalvikKeyPair& key : keys) {
            const std::string id = idOf(key.keyId);
            present.insert(id);
            const Bytes digest = pattern(32);
            const Result signature = sign({0, key}, digest);
            EXPECT_EQ(signature.status, 0) << id;
            EXPECT_EQ(verify(Key{0, key}.publicKey(), digest, signature.bytes), 0) << id;
            EXPECT_FALSE(journal.ids["deleted"].contains(id)) << id << " is back";
            EXPECT_EQ(talvik_deleteKeyPair(device, key.keyId, pin, true, nullptr), 0);
        }
        present.insert(journal.ids["deleted"].begin(), journal.ids["deleted"].end());
        for (const std::string& id : journal.ids["made"]) {
            EXPECT_TRUE(present.contains(id) || journal.pending == "delete:" + id) << id << " is lost";
        }
        EXPECT_LE(present.size(), journal.ids["made"].size() + (journal.pending == "make" ? 2 : 1));
        const std::vector<TalvikSymmetricKey> listed = talvik_getAesKeyList(device, nullptr);
        for (const TalvikSymmetricKey& key : listed) {
            aesKeys.insert(idOf(key.identifier));
        }
        aesKeys_.merge(journal.ids["aes"]);
        EXPECT_TRUE(std::ranges::includes(aesKeys, aesKeys_));
    }

    void checkFiles() const {
        for (const auto& entry : std::filesystem::directory_iterator(scratch().path() / home())) {
            const std::string name = entry.path().filename().string();
            EXPECT_TRUE(name == "T1.json" || name == "T1.lock") << name << " is left over";
        }
    }

    std::set<std::string> aesKeys_;
};

// Without giving the processor up for longer than that.
void spin(unsigned milliseconds) {
    const ULONGLONG until = GetTickCount64() + milliseconds;
    while (GetTickCount64() < until) {
        SwitchToThread();
    }
}

int rounds() {
    const char* const given = std::getenv("TALVIK_POWER_CUTS");
    return given != nullptr ? std::atoi(given) : 30;
}

TEST_F(PowerCut, LosesNothingConfirmed) {
    std::mt19937 random(20251115);
    for (int round = 0; round < rounds() && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        std::filesystem::remove(scratch().path() / "journal");
        const bool fromOutside = round % 2 == 1;
        const unsigned steps = fromOutside ? 0 : 1 + random() % 150;
        Role worker("cut", std::to_string(random()) + ':' + std::to_string(steps));
        if (fromOutside) {
            while (!std::filesystem::exists(scratch().path() / "journal")) {
                SwitchToThread();
            }
            spin(random() % 400);
            worker.kill();
        } else {
            EXPECT_EQ(worker.wait(), cutExit);
        }
        Journal journal = readJournal();
        checkAttempts(journal);
        if (attemptsInFile() == 0) {  // the last attempt was being made
            EXPECT_EQ(talvik("token unblock T1 --admin-pin 12345678 --new-pin 1234"), 0);
        }
        checkObjects(journal);
        checkFiles();
        EXPECT_EQ(attemptsInFile(), 3);
    }
}

// The file that opens a token without its PIN does not outlive a sign-on that was cut off.
TEST_F(PowerCut, LeavesNoSignOnBehind) {
    std::mt19937 random(7);
    for (int round = 0; round < rounds() / 5; ++round) {
        ChildProcess switching(talvikCommand(round % 2 == 0 ? "token sso on T1 --pin 1234" : "token sso off T1"));
        spin(random() % 600);
        switching.kill();
        if (login(pin) == PinLocked) {  // each cut during "on" costs an attempt
            EXPECT_EQ(talvik("token unblock T1 --admin-pin 12345678 --new-pin 1234"), 0);
        }
        EXPECT_EQ(login(pin), 0);
    }
    // Cut off between the session file and the state that grants it.
    write(home() + "/T1.session", pattern(10));
    write(home() + "/T1.session.new", pattern(10));
    EXPECT_EQ(talvik("token sso off T1"), 0);
    ASSERT_EQ(generate(TALVIK_KEY_EC_P256, TALVIK_USAGE_SIGN).status, 0);
    checkFiles();
    write(home() + "/T1.session", pattern(10));
    ASSERT_EQ(generate(TALVIK_KEY_EC_P256, TALVIK_USAGE_SIGN).status, 0);
    checkFiles();
}

}  // namespace
}  // namespace talvik_test
