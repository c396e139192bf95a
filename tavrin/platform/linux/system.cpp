// Linux's part of the platform layer: the kernel's randomness, thread names
// and fork handlers, the data directory under XDG_DATA_HOME, the system facts
// from /sys, /etc/os-release, uname and the locale environment, and the
// default implementations (SQLite store, libcurl client, rtnetlink monitor,
// syslog sink).

#include <pthread.h>
#include <pwd.h>
#include <string.h>
#include <sys/random.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tavrin/platform/http_client.h"
#include "tavrin/platform/internal/fatal_error.h"
#include "tavrin/platform/internal/system.h"
#include "tavrin/platform/linux/device_facts_files.h"
#include "tavrin/platform/linux/netlink_path_monitor.h"
#include "tavrin/platform/linux/sqlite_key_value_store.h"
#include "tavrin/platform/system_log.h"

namespace tavrin::platform::os {

void fillRandom(unsigned char* out, std::size_t size) {
    while (size > 0) {
        ssize_t n = getrandom(out, size, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            // Without a random source no identifier can be trusted; the kernel
            // only fails here on systems too old for getrandom(2).
            tavrin::detail::fatalError(std::string("SecureRandom: getrandom failed: ") + std::strerror(errno));
        }
        out += n;
        size -= static_cast<std::size_t>(n);
    }
}

void secureZero(void* memory, std::size_t size) { explicit_bzero(memory, size); }

void nameThread(const std::string& name) {
    // The kernel keeps 15 bytes of a thread's name.
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
}

bool registerForkHandlers(void (*prepare)(), void (*parent)(), void (*child)()) {
    return pthread_atfork(prepare, parent, child) == 0;
}

std::optional<std::string> executableName() {
    char buffer[4096];
    const ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer);
    if (n > 0 && static_cast<std::size_t>(n) < sizeof buffer) {
        std::string path(buffer, static_cast<std::size_t>(n));
        // The link of a program replaced on disk while running.
        constexpr std::string_view deleted = " (deleted)";
        if (path.ends_with(deleted)) path.resize(path.size() - deleted.size());
        std::string name = std::filesystem::path(path).filename().string();
        if (!name.empty()) return name;
    }
    // No /proc: the name the program was started under.
    if (program_invocation_short_name && *program_invocation_short_name) return program_invocation_short_name;
    return std::nullopt;
}

namespace {

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

std::filesystem::path defaultDataDirectory(const std::string& applicationDirectoryName) {
    if (auto xdg = absoluteEnvironmentPath("XDG_DATA_HOME")) return *xdg / applicationDirectoryName;
    return homeDirectory() / ".local" / "share" / applicationDirectoryName;
}

std::shared_ptr<KeyValueStore> openDefaultStore(const std::filesystem::path& directory) {
    return std::make_shared<SqliteKeyValueStore>(directory / SqliteKeyValueStore::kFileName);
}

void settleStore(KeyValueStore& store) {
    if (auto* sqlite = dynamic_cast<SqliteKeyValueStore*>(&store)) sqlite->checkpoint();
}

std::shared_ptr<HttpClient> makeDefaultHttpClient() { return std::make_shared<CurlHttpClient>(); }

std::shared_ptr<PathMonitor> makeDefaultPathMonitor() { return std::make_shared<NetlinkPathMonitor>(); }

std::shared_ptr<LogSink> makeDefaultLogSink() { return std::make_shared<SyslogSink>(); }

std::shared_ptr<LogSink> freshDefaultSink(const LogSink& sink) {
    if (auto* syslog = dynamic_cast<const SyslogSink*>(&sink))
        return std::make_shared<SyslogSink>(syslog->socketPath());
    return nullptr;
}

std::optional<std::string> model() { return detail::readModel("/"); }

std::string systemName() { return detail::readSystemName("/"); }

std::optional<std::string> systemVersion() { return detail::readSystemVersion("/"); }

std::optional<std::string> machine() {
    struct utsname u {};
    if (uname(&u) != 0 || u.machine[0] == '\0') return std::nullopt;
    return std::string(u.machine);
}

LocaleCodes currentLocale() {
    for (const char* var : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(var);
        if (value && *value) return DeviceFacts::parseLocale(value);
    }
    return {};
}

}  // namespace tavrin::platform::os
