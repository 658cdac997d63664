#include "level_query.h"

#include <cstring>

#include "provider.h"

namespace talvik::bench {
namespace {

using GetValue = decltype(&RegGetValueA);

thread_local long answeredCount = 0;
GetValue* importedGetValue = nullptr;
GetValue systemGetValue = nullptr;

LSTATUS WINAPI answerAtOnce(HKEY, LPCSTR, LPCSTR, DWORD, LPDWORD, PVOID data, LPDWORD size) {
    constexpr DWORD level = 2;
    ++answeredCount;
    std::memcpy(data, &level, sizeof level);
    *size = sizeof level;
    return ERROR_SUCCESS;
}

template <class Record>
const Record* at(HMODULE module, DWORD offset) {
    return reinterpret_cast<const Record*>(reinterpret_cast<const BYTE*>(module) + offset);
}

// Where the module keeps the address of an imported function; null when it does not import it.
ULONGLONG* importSlot(HMODULE module, const char* function) {
    const auto* const headers =
        at<IMAGE_NT_HEADERS64>(module, static_cast<DWORD>(at<IMAGE_DOS_HEADER>(module, 0)->e_lfanew));
    const DWORD imports = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    for (const auto* library = at<IMAGE_IMPORT_DESCRIPTOR>(module, imports); library->Name != 0; ++library) {
        const auto* const names = at<ULONGLONG>(module, library->OriginalFirstThunk);
        for (DWORD i = 0; names[i] != 0; ++i) {
            const bool isByName = (names[i] & IMAGE_ORDINAL_FLAG64) == 0;
            if (isByName &&
                std::strcmp(at<IMAGE_IMPORT_BY_NAME>(module, static_cast<DWORD>(names[i]))->Name, function) == 0) {
                return const_cast<ULONGLONG*>(at<ULONGLONG>(module, library->FirstThunk)) + i;
            }
        }
    }
    return nullptr;
}

}  // namespace

void watchLevelQueries(HMODULE provider) {
    ULONGLONG* const slot = importSlot(provider, "RegGetValueA");
    require(slot != nullptr, "finding the provider's import of RegGetValueA");
    DWORD before = 0;
    require(VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &before), "VirtualProtect");
    importedGetValue = reinterpret_cast<GetValue*>(slot);
    systemGetValue = *importedGetValue;
}

AnsweredQueries::AnsweredQueries() noexcept {
    *importedGetValue = answerAtOnce;
}

AnsweredQueries::~AnsweredQueries() {
    *importedGetValue = systemGetValue;
}

long answeredQueryCount() noexcept {
    return answeredCount;
}

}  // namespace talvik::bench
