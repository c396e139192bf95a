#include "tavrin/platform/key_value_store.h"

#include <mutex>
#include <vector>

#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/internal/system.h"

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
    if (auto name = asComponent(os::executableName())) return *name;
    return kFallbackDirectoryName;
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
    auto opened = os::openDefaultStore(std::filesystem::path(dataDirectory()));
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
        if (state.hostDirectory) return state.hostDirectory->string();
    }
    return os::defaultDataDirectory(applicationDirectoryName()).string();
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
