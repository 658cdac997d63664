// talvik-watch.exe: starts "talvik certs watch" at logon, with its own arguments, and no console window.
#include <windows.h>

#include <string>

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t* arguments, int) {
    std::wstring path(MAX_PATH, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    const std::wstring tool = path.substr(0, path.rfind(L'\\') + 1) + L"talvik.exe";
    std::wstring command = L"\"" + tool + L"\" certs watch " + arguments;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    if (!CreateProcessW(tool.c_str(), command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr,
                        &startup, &started)) {
        return static_cast<int>(GetLastError());
    }
    CloseHandle(started.hThread);
    CloseHandle(started.hProcess);
    return 0;
}
