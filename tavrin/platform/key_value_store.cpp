#include "tavrin/platform/key_value_store.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <vector>

#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/internal/sqlite_key_value_store.h"

namespace tavrin::platform {

namespace {

// When the executable cannot be named (no /proc).
constexpr const char* kFallbackDirectoryName = "com.tavrin.TavrinSDK";

struct StandardState {
    std::mutex mutex;
    std::mutex openMutex;
    std::optional<std::filesystem::path> hostDirectory;
    std::shared_ptr<KeyValueStore> store;
    // The fork generation of the default store opened here (none: the host's).
    std::optional<std::uint32_t> openedIn;
};

StandardState& standardState() {
    static auto* state = new StandardState();
    return *state;
}

std::optional<std::string> executableName() {
    char buffer[4096];
    const ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0) return std::nullopt;
    const std::string path(buffer, static_cast<std::size_t>(n));
    const auto slash = path.rfind('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name.empty()) return std::nullopt;
    return name;
}

// A name usable as one directory component.
std::optional<std::string> asComponent(std::optional<std::string> name) {
    if (!name || name->empty() || *name == "." || *name == "..") return std::nullopt;
    for (char& c : *name)
        if (c == '/' || c == '\0') c = '_';
    return name;
}

// Only the executable names the default directory: nothing the host sets at
// run time does, so every launch finds the same store whatever its call order.
std::string applicationDirectoryName() {
    if (auto name = asComponent(executableName())) return *name;
    return kFallbackDirectoryName;
}

// Set, absolute environment path (relative values are to be ignored).
std::optional<std::filesystem::path> absoluteEnvironmentPath(const char* name) {
    const char* value = std::getenv(name);
    if (!value || *value != '/') return std::nullopt;
    return std::filesystem::path(value);
}

std::filesystem::path homeDirectory() {
    if (auto home = absoluteEnvironmentPath("HOME")) return *home;
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_dir &&
        found->pw_dir[0] == '/')
        return found->pw_dir;
    // No home at all (a daemon without a passwd entry): the working directory.
    return std::filesystem::path(".");
}

}  // namespace

std::optional<std::string> KeyValueStore::string(const std::string& key) const {
    auto stored = value(key);
    if (!stored) return std::nullopt;
    if (auto* text = std::get_if<std::string>(&*stored)) return std::move(*text);
    return std::nullopt;
}

std::optional<std::int64_t> KeyValueStore::integer(const std::string& key) const {
    auto stored = value(key);
    if (!stored) return std::nullopt;
    if (auto* number = std::get_if<std::int64_t>(&*stored)) return *number;
    return std::nullopt;
}

std::optional<Bytes> KeyValueStore::data(const std::string& key) const {
    auto stored = value(key);
    if (!stored) return std::nullopt;
    if (auto* bytes = std::get_if<Bytes>(&*stored)) return std::move(*bytes);
    return std::nullopt;
}

std::shared_ptr<KeyValueStore> KeyValueStore::standard() {
    auto& state = standardState();
    {
        std::lock_guard lock(state.mutex);
        // A forked child opens a connection of its own: one must never be
        // shared across a fork.
        if (state.store && state.openedIn && *state.openedIn != forkGeneration()) {
            keepForever(std::exchange(state.store, nullptr));
            state.openedIn.reset();
        }
        if (state.store) return state.store;
    }
    // One opener at a time, so two threads never both open (or both repair)
    // the file. The state mutex is not held meanwhile: dataDirectory() takes it.
    std::lock_guard opening(state.openMutex);
    {
        std::lock_guard lock(state.mutex);
        if (state.store) return state.store;
    }
    auto opened =
        std::make_shared<SqliteKeyValueStore>(std::filesystem::path(dataDirectory()) / SqliteKeyValueStore::kFileName);
    std::lock_guard lock(state.mutex);
    // setStandard may have installed a store while this one opened; it wins.
    if (!state.store) {
        state.store = std::move(opened);
        state.openedIn = forkGeneration();
    }
    return state.store;
}

void KeyValueStore::setStandard(std::shared_ptr<KeyValueStore> store) {
    auto& state = standardState();
    std::lock_guard lock(state.mutex);
    state.store = std::move(store);
    state.openedIn.reset();
}

void KeyValueStore::setDataDirectory(std::optional<std::string> directory) {
    auto& state = standardState();
    std::lock_guard lock(state.mutex);
    state.hostDirectory = std::move(directory);
}

std::string KeyValueStore::dataDirectory() {
    {
        auto& state = standardState();
        std::lock_guard lock(state.mutex);
        if (state.hostDirectory) return *state.hostDirectory;
    }
    if (auto xdg = absoluteEnvironmentPath("XDG_DATA_HOME")) return *xdg / applicationDirectoryName();
    return homeDirectory() / ".local" / "share" / applicationDirectoryName();
}

// ---- listing by key prefix

std::vector<KeyValueStore::Entry> KeyValueStore::values(std::string_view) const { return {}; }

std::vector<KeyValueStore::KeySize> KeyValueStore::keySizes(std::string_view prefix) const {
    std::vector<KeySize> sizes;
    for (const auto& [key, value] : values(prefix)) {
        std::size_t size = sizeof(std::int64_t);
        if (const auto* text = std::get_if<std::string>(&value)) size = text->size();
        if (const auto* bytes = std::get_if<Bytes>(&value)) size = bytes->size();
        sizes.emplace_back(key, size);
    }
    return sizes;
}

bool KeyValueStore::apply(const std::vector<Change>& changes) {
    bool all = true;
    for (const auto& change : changes)
        all = (change.value ? set(change.key, *change.value) : remove(change.key)) && all;
    return all;
}

}  // namespace tavrin::platform
