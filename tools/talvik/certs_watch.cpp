#include "certs_watch.h"

#include <windows.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <set>
#include <utility>

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

class Watch {
  public:
    explicit Watch(bool withdrawing) : withdrawing_(withdrawing) {}

    // Does what has changed since the last look. What fails, of a token or of the store, does not end the watch: it is
    // tried again at the next look.
    void look() {
        std::vector<std::string> attached;
        if (!attempt([&attached] { attached = attachedTokens(); })) {
            return;
        }
        for (const std::string& id : attached) {
            if (!published_.contains(id) &&
                attempt([&id] { tell(publish(certificatesOn({Device(id)}), Face::Auto)); })) {
                published_.insert(id);
            }
        }
        std::erase_if(published_, [&](const std::string& id) {
            return std::ranges::find(attached, id) == attached.end() &&
                   (!withdrawing_ || attempt([&id] { tell(withdraw(id)); }));
        });
    }

  private:
    // A failure is told once, not at every look.
    template <class Work>
    bool attempt(Work work) {
        try {
            work();
            return true;
        } catch (const std::exception& problem) {
            if (std::exchange(problem_, problem.what()) != problem.what()) {
                std::cerr << "talvik: " << printable(problem_) << std::endl;
            }
            return false;
        }
    }

    bool withdrawing_;
    std::set<std::string> published_;  // tokens that are attached and done
    std::string problem_;              // the last
};

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
    Watch watching(withdrawing);
    do {
        watching.look();
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
