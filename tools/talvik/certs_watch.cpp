#include "certs_watch.h"

#include <windows.h>

#include <algorithm>
#include <iostream>
#include <memory>

#include "doctor_system.h"
#include "exit_code.h"
#include "output.h"
#include "printable.h"
#include "publication.h"
#include "status.h"
#include "token_file.h"

namespace talvik_tool {
namespace {

using virtual_token::Handle;

// Of one session: the namespace of these names is the session's own.
constexpr wchar_t instanceName[] = L"Local\\TalvikCertsWatch";
constexpr wchar_t stopName[] = L"Local\\TalvikCertsWatchStop";
constexpr DWORD pollMilliseconds = 1000;

struct WatchArguments {
    bool withdraw = false;
    bool stop = false;
};

HANDLE stopEvent = nullptr;  // for those whom the system calls without a context

// Ctrl+C, a closed console.
BOOL WINAPI onConsoleEvent(DWORD) {
    SetEvent(stopEvent);
    return TRUE;
}

// The end of the session arrives at windows; this one is never shown.
LRESULT CALLBACK onMessage(HWND window, UINT message, WPARAM first, LPARAM second) {
    if (message == WM_ENDSESSION && first != FALSE) {
        SetEvent(stopEvent);
        return 0;
    }
    return DefWindowProcW(window, message, first, second);
}

class HiddenWindow {
  public:
    HiddenWindow() {
        WNDCLASSW description{};
        description.lpfnWndProc = onMessage;
        description.hInstance = GetModuleHandleW(nullptr);
        description.lpszClassName = L"TalvikCertsWatch";
        RegisterClassW(&description);
        window_ = CreateWindowExW(0, description.lpszClassName, L"", WS_OVERLAPPED, 0, 0, 0, 0, nullptr, nullptr,
                                  description.hInstance, nullptr);
    }
    ~HiddenWindow() { DestroyWindow(window_); }
    HiddenWindow(const HiddenWindow&) = delete;
    HiddenWindow& operator=(const HiddenWindow&) = delete;

  private:
    HWND window_;
};

void tell(const std::vector<Outcome>& outcomes) {
    for (const Outcome& outcome : outcomes) {
        if (outcome.done != "unchanged") {
            print(outcome.done + ": " + outcome.subject + ", token " + outcome.token +
                  (outcome.reason.empty() ? "" : ": " + outcome.reason));
        }
    }
    std::cout.flush();
}

// A failure of one token or of one moment is told and does not end the watch.
template <class Work>
void attempt(Work work) {
    try {
        work();
    } catch (const std::exception& problem) {
        std::cerr << "talvik: " << printable(problem.what()) << std::endl;
    }
}

void follow(std::vector<std::string>& known, bool withdrawing) {
    const std::vector<std::string> now = attachedTokens();
    const auto isIn = [](const std::vector<std::string>& ids, const std::string& id) {
        return std::ranges::find(ids, id) != ids.end();
    };
    for (const std::string& id : now) {
        if (!isIn(known, id)) {
            attempt([&id] { tell(publish(certificatesOn({Device(id)}), Face::Auto)); });
        }
    }
    for (const std::string& id : known) {
        if (withdrawing && !isIn(now, id)) {
            attempt([&id] { tell(withdraw(id)); });
        }
    }
    known = now;
}

// False when it is time to stop.
bool waitForNextLook() {
    const DWORD since = GetTickCount();
    for (DWORD passed = 0; passed < pollMilliseconds; passed = GetTickCount() - since) {
        const DWORD woken = MsgWaitForMultipleObjects(1, &stopEvent, FALSE, pollMilliseconds - passed, QS_ALLINPUT);
        if (woken == WAIT_OBJECT_0) {
            return false;
        }
        for (MSG message; PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE);) {
            DispatchMessageW(&message);
        }
    }
    return true;
}

int watch(bool withdrawing) {
    attachedTokens();  // no device library: no watch
    const Handle instance(CreateMutexW(nullptr, FALSE, instanceName));
    if (GetLastError() == ERROR_ALREADY_EXISTS) {
        std::cerr << "talvik: a watch runs in this session already; to end it: talvik certs watch --stop\n";
        return Exists;
    }
    const Handle stop(CreateEventW(nullptr, TRUE, FALSE, stopName));
    stopEvent = stop.get();
    SetConsoleCtrlHandler(onConsoleEvent, TRUE);
    const HiddenWindow window;
    std::vector<std::string> known;
    do {
        attempt([&] { follow(known, withdrawing); });
    } while (waitForNextLook());
    SetConsoleCtrlHandler(onConsoleEvent, FALSE);
    return Done;
}

int stopWatch() {
    const Handle stop(OpenEventW(EVENT_MODIFY_STATE, FALSE, stopName));
    if (!stop) {
        std::cerr << "talvik: no watch runs in this session\n";
        return NotFound;
    }
    SetEvent(stop.get());
    return Done;
}

}  // namespace

void addCertsWatch(CLI::App& family, int& exitCode) {
    CLI::App* command =
        family.add_subcommand("watch", "Stay, and publish the certificates of every token that is attached");
    const auto arguments = std::make_shared<WatchArguments>();
    command->add_flag("--withdraw", arguments->withdraw, "Also withdraw those of a token that is detached");
    command->add_flag("--stop", arguments->stop, "End the watch of this session");
    command->callback(
        [arguments, &exitCode] { exitCode = arguments->stop ? stopWatch() : watch(arguments->withdraw); });
}

}  // namespace talvik_tool
