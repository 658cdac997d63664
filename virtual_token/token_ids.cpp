#include "token_ids.h"

#include <windows.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>

#include "srw_lock.h"
#include "token_file.h"

namespace virtual_token {
namespace {

constexpr std::size_t longestTokenId = 64;
constexpr std::string_view systemDevices[] = {"CON", "PRN", "AUX", "NUL"};

bool isDeviceName(std::string_view id) {
    std::string base(id.substr(0, id.find('.')));
    std::ranges::transform(base, base.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const bool numbered = base.size() == 4 && (base.starts_with("COM") || base.starts_with("LPT"));
    return numbered || std::ranges::find(systemDevices, base) != std::end(systemDevices);
}

struct FindCloser {
    using pointer = HANDLE;
    void operator()(HANDLE search) const { FindClose(search); }
};

std::vector<std::string> readFolder(const std::wstring& folder) {
    std::vector<std::string> ids;
    WIN32_FIND_DATAW entry{};
    const HANDLE first =
        FindFirstFileExW((folder + L"\\*.json").c_str(), FindExInfoBasic, &entry, FindExSearchNameMatch, nullptr, 0);
    if (first == INVALID_HANDLE_VALUE) {
        return ids;
    }
    const std::unique_ptr<void, FindCloser> search(first);
    do {
        const std::wstring_view file = entry.cFileName;
        const std::wstring_view stem = file.substr(0, file.size() - std::min(file.size(), tokenExtension.size()));
        std::string id;
        std::ranges::transform(stem, std::back_inserter(id),
                               [](wchar_t c) { return c < 0x80 ? static_cast<char>(c) : '?'; });
        if (file.ends_with(tokenExtension) && isTokenId(id)) {
            ids.push_back(std::move(id));
        }
    } while (FindNextFileW(search.get(), &entry));
    std::ranges::sort(ids);
    return ids;
}

// Whether a folder gets another date with each file that comes, goes or is renamed. On NTFS it does, and on what Wine
// shows as NTFS; on FAT it does not. The date of a link is not the date of the folder behind it.
bool tellsByItsDate(const std::wstring& folder) {
    constexpr DWORD sharing = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const HANDLE opened = CreateFileW(folder.c_str(), FILE_READ_ATTRIBUTES, sharing, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    const Handle owned(opened == INVALID_HANDLE_VALUE ? nullptr : opened);
    const DWORD attributes = GetFileAttributesW(folder.c_str());
    wchar_t fileSystem[MAX_PATH];
    return owned && attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0 &&
           GetVolumeInformationByHandleW(opened, nullptr, 0, nullptr, nullptr, nullptr, fileSystem, MAX_PATH) &&
           std::wstring_view(fileSystem) == L"NTFS";
}

// One folder's, as they were read last. Applications list the tokens whenever they acquire a context, and reading a
// folder costs thirty times what asking for its date does (under Wine 380 and 12 us).
class KnownIds {
  public:
    std::vector<std::string> of(const std::wstring& folder) {
        const std::uint64_t asked = currentTime();
        const std::optional<FileStamp> stamp = stampOf(folder);
        {
            const std::shared_lock guard(lock_);
            if (stamp && stamp == stamp_ && folder == folder_) {
                return ids_;
            }
        }
        std::vector<std::string> ids = readFolder(folder);
        // The file that comes next need not give a young folder another date.
        const bool serves = stamp && stamp->time + coarsestDate < asked && tellsByItsDate(folder);
        const std::lock_guard guard(lock_);
        folder_ = folder;
        stamp_ = serves ? stamp : std::nullopt;
        ids_ = ids;
        return ids;
    }

  private:
    static constexpr std::uint64_t coarsestDate = 3 * 10'000'000;  // 100-nanosecond units; file systems' have up to 2 s

    SrwLock lock_;
    std::wstring folder_;
    std::optional<FileStamp> stamp_;  // nothing where the next one has to read again
    std::vector<std::string> ids_;
};

}  // namespace

bool isTokenId(std::string_view id) {
    const auto allowed = [](unsigned char c) {
        return c < 0x80 && (std::isalnum(c) || c == '.' || c == '-' || c == '_');
    };
    return !id.empty() && id.size() <= longestTokenId && id.front() != '.' && id.back() != '.' &&
           std::ranges::all_of(id, allowed) && !isDeviceName(id);
}

std::vector<std::string> tokenIdsIn(const std::wstring& folder) {
    static KnownIds known;
    return known.of(folder);
}

}  // namespace virtual_token
