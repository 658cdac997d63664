#include "token_home.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <mutex>
#include <shared_mutex>

#include "status.h"
#include "system_text.h"

namespace virtual_token {
namespace {

// The tokens that this process has met, by the path of their files.
struct Registry {
    SrwLock lock;
    std::map<std::wstring, std::shared_ptr<Token>, std::less<>> tokens;
};

Registry& registry() {
    static Registry instance;
    return instance;
}

std::shared_ptr<Token> tokenAt(const std::wstring& path, std::string_view id) {
    Registry& known = registry();
    {
        const std::shared_lock guard(known.lock);
        const auto found = known.tokens.find(path);
        if (found != known.tokens.end()) {
            return found->second;
        }
    }
    require(stampOf(path).has_value(), Status::NoSuchDevice);
    const std::lock_guard guard(known.lock);
    std::shared_ptr<Token>& entry = known.tokens[path];
    if (!entry) {
        entry = std::make_shared<Token>(path, std::string(id));
    }
    return entry;
}

std::wstring environmentText(const wchar_t* name) {
    std::wstring text(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetEnvironmentVariableW(name, text.data(), static_cast<DWORD>(text.size()));
        if (length <= text.size()) {
            text.resize(length);
            return text;
        }
        text.resize(length);
    }
}

// Of a token that is not, or not any more; unless somebody holds it.
void deleteLock(const std::wstring& path) {
    DeleteFileW((path.substr(0, path.size() - tokenExtension.size()) + L".lock").c_str());
}

ListedToken listToken(const std::string& id) {
    ListedToken listed{id, nullptr, {}};
    try {
        listed.snapshot = findToken(id)->snapshot();
    } catch (const TokenError& error) {
        listed.problem = error.what();
    }
    return listed;
}

}  // namespace

std::wstring tokenHome() {
    std::wstring home = environmentText(L"TALVIK_TOKEN_HOME");
    if (home.empty()) {
        home = environmentText(L"LOCALAPPDATA");
        home += home.empty() ? L"" : L"\\Quorvel\\VirtualToken";
    }
    return home;
}

std::wstring tokenPath(std::string_view id) {
    require(isTokenId(id), Status::InvalidArgument);
    std::wstring path = tokenHome();
    require(!path.empty(), Status::NoSuchDevice);
    path += L'\\';
    path.append(id.begin(), id.end());
    return path.append(tokenExtension);
}

std::shared_ptr<Token> findToken(std::string_view id) {
    require(isTokenId(id), Status::NoSuchDevice);
    return tokenAt(tokenPath(id), id);
}

std::vector<ListedToken> listTokens() {
    std::vector<ListedToken> tokens;
    const std::wstring home = tokenHome();
    if (!home.empty()) {
        std::ranges::transform(tokenIdsIn(home), std::back_inserter(tokens), listToken);
    }
    return tokens;
}

void createToken(TokenState state, std::string_view pin, std::string_view adminPin) {
    const std::wstring path = tokenPath(state.id);
    std::error_code problem;
    std::filesystem::create_directories(tokenHome(), problem);
    if (problem) {
        throw TokenError(Status::StorageFailure,
                         "cannot make the folder " + utf8(tokenHome()) + ": " + problem.message());
    }
    try {
        Token::create(path, std::move(state), pin, adminPin);
    } catch (...) {
        if (!stampOf(path)) {
            deleteLock(path);
        }
        throw;
    }
}

void deleteToken(std::string_view id) {
    const std::wstring path = tokenPath(id);
    Token(path, std::string(id)).remove();
    deleteLock(path);
}

}  // namespace virtual_token
