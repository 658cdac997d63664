// What this program does as a second process. The exit status is 0 when the role was played well.
#include <cstring>
#include <map>

#include "e2e/surroundings.h"
#include "support/dialog_robot.h"

namespace e2e {
namespace {

// Signs its own process identifier many times over, and leaves the last signature for the first process to check.
int signing() {
    DialogRobot robot;
    robot.enters(pin);
    const Context context = acquire();
    const std::string id = std::to_string(GetCurrentProcessId());
    Bytes signature;
    for (int i = 0; i < 50; ++i) {
        signature = sign(digest(context, CALG_SHA_256, bytesOf(id)));
        if (signature.empty()) {
            return 1;
        }
    }
    write("signature-" + id, signature);
    return robot.finish() == std::vector<std::string>{"PIN"} ? 0 : 2;
}

int loading() {
    const auto cycle = [](int count) {
        for (int i = 0; i < count; ++i) {
            const HMODULE provider = LoadLibraryA("TalvikCSP.dll");
            if (!provider || !GetProcAddress(provider, "CPAcquireContext") || !FreeLibrary(provider)) {
                return false;
            }
        }
        return true;
    };
    if (!cycle(300)) {
        return 1;
    }
    const bool unloads = GetModuleHandleA("TalvikCSP.dll") == nullptr;
    for (int i = 0; i < 100; ++i) {
        if (!acquire() || !cycle(1)) {
            return 2;
        }
    }
    return unloads ? 0 : 3;
}

bool leave() {
    static Context context = acquire();
    const ULONGLONG now = GetTickCount64();
    Bytes stamp(sizeof now);
    std::memcpy(stamp.data(), &now, sizeof now);
    write("left-" + std::to_string(GetCurrentProcessId()), stamp);
    return context != 0;
}

int returning() {
    return leave() ? 0 : 1;
}

int exiting() {
    ExitProcess(leave() ? 0 : 1);
}

}  // namespace

int playRole(const std::string& role) {
    static const std::map<std::string, int (*)()> roles = {
        {"sign", signing}, {"load", loading}, {"return", returning}, {"exit", exiting}};
    const auto found = roles.find(role);
    return found == roles.end() ? 99 : found->second();
}

}  // namespace e2e
