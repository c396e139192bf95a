#pragma once
// What each operating system gives the platform layer. The facilities
// themselves (clock, dispatch, store front, path delivery, log front) are
// written once; these functions are written once per system, in
// tavrin/platform/linux/ and tavrin/platform/windows/, and only the files of
// the system being built are compiled.

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tavrin/platform/device_facts.h"

namespace tavrin::platform {

class HttpClient;
class KeyValueStore;
class LogSink;
class PathMonitor;

namespace os {

// Randomness from the system's cryptographic source; stops the process when
// there is none (no identifier could be trusted).
void fillRandom(unsigned char* out, std::size_t size);
// Wipes memory in a way the optimiser may not drop.
void secureZero(void* memory, std::size_t size);

// Names the calling thread for debuggers and process viewers (best effort).
void nameThread(const std::string& name);

// Handlers around fork(): before it, then in the parent and in the child
// after it. A system without fork has nothing to register (true).
bool registerForkHandlers(void (*prepare)(), void (*parent)(), void (*child)());

// The running program's file name (without ".exe" on Windows), used to name
// the data directory; nothing when the system cannot tell.
std::optional<std::string> executableName();
// The default data directory for that name: $XDG_DATA_HOME/<name> or
// ~/.local/share/<name> on Linux, %LOCALAPPDATA%\<name> on Windows.
std::filesystem::path defaultDataDirectory(const std::string& applicationDirectoryName);

// The default implementations of the replaceable facilities.
std::shared_ptr<KeyValueStore> openDefaultStore(const std::filesystem::path& directory);
std::shared_ptr<HttpClient> makeDefaultHttpClient();
std::shared_ptr<PathMonitor> makeDefaultPathMonitor();
std::shared_ptr<LogSink> makeDefaultLogSink();
// In a forked child: a fresh sink of the same kind as `sink` when it is the
// system's default kind, else nothing (the host's sinks are the host's).
std::shared_ptr<LogSink> freshDefaultSink(const LogSink& sink);
// Brings the standard store's files to their settled form before the
// process exits (folds SQLite's write-ahead log); nothing where there is
// nothing to fold.
void settleStore(KeyValueStore& store);

// System facts (DeviceFacts): read at call time, nothing cached here.
std::optional<std::string> model();
std::string systemName();
std::optional<std::string> systemVersion();
std::optional<std::string> machine();
LocaleCodes currentLocale();

}  // namespace os
}  // namespace tavrin::platform
