// What this program does as a second process. The exit status is 0 when the role was played well.
#include <cstring>

#include "e2e/surroundings.h"
#include "support/dialog_robot.h"

namespace e2e {
namespace {

// Signs its own name many times over, and leaves the last signature for the first process to check.
int signing(const std::string& name) {
    DialogRobot robot;
    robot.enters(pin);
    const Context context = acquire();
    Bytes signature;
    for (int i = 0; i < 50; ++i) {
        signature = sign(digest(context, CALG_SHA_256, bytesOf(name)));
        if (signature.empty()) {
            return 1;
        }
    }
    write("signature-" + name, signature);
    return robot.finish() == std::vector<std::string>{"PIN"} ? 0 : 2;
}

// Makes a key; whoever sits at the display answers the PIN dialog.
int enrolling(const std::string&) {
    return generate(acquire()) ? 0 : 1;
}

int loading(const std::string&) {
    const auto cycle = [](int count) {
        for (int i = 0; i < count; ++i) {
            const HMODULE provider = LoadLibraryA("TalvikCSP.dll");
            if (!provider || !GetProcAddress(provider, "CPAcquireContext") || !FreeLibrary(provider)) {
                return false;
            }
        }
        return true;
    };
    // More often than the process has thread-local slots, of which every real load would take one for good.
    if (!cycle(2000)) {
        return 1;
    }
    for (int i = 0; i < 100; ++i) {
        if (!acquire() || !cycle(1)) {
            return 2;
        }
    }
    return 0;
}

// Each refused acquisition lets the system unload the provider, though its monitor has been started.
int refused(const std::string&) {
    for (int i = 0; i < 20; ++i) {
        if (acquire() || GetLastError() != static_cast<DWORD>(NTE_TOKEN_KEYSET_STORAGE_FULL)) {
            return 1;
        }
    }
    return 0;
}

bool leave(const std::string& name) {
    static Context context = acquire();
    const ULONGLONG now = GetTickCount64();
    Bytes stamp(sizeof now);
    std::memcpy(stamp.data(), &now, sizeof now);
    write("left-" + name, stamp);
    return context != 0;
}

int returning(const std::string& name) {
    return leave(name) ? 0 : 1;
}

int exiting(const std::string& name) {
    ExitProcess(leave(name) ? 0 : 1);
}

}  // namespace

const Roles roles = {{"enrol", enrolling}, {"sign", signing},     {"load", loading},
                     {"refused", refused}, {"return", returning}, {"exit", exiting}};

}  // namespace e2e
