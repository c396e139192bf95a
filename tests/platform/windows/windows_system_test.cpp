// What the platform layer reads from Windows, checked against the running
// system (under wine on the build machine, on Windows itself in CI).

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tavrin/platform/internal/system.h"
#include "tavrin/platform/system_log.h"
#include "tavrin/platform/windows/locale_name.h"

namespace tavrin::platform {
namespace {

TEST(WindowsSystemFactsTest, NameVersionAndMachine) {
    EXPECT_EQ(os::systemName(), "Windows");
    const auto version = os::systemVersion();
    ASSERT_TRUE(version.has_value());
    EXPECT_TRUE(std::regex_match(*version, std::regex(R"([1-9]\d*\.\d+\.\d+)"))) << *version;
    // The native processor, told by another call than the one under test: an
    // x64 build emulated on an ARM64 system reports the system's arm64.
    USHORT process = 0, native = 0;
    ASSERT_TRUE(IsWow64Process2(GetCurrentProcess(), &process, &native));
    const auto machine = os::machine();
    ASSERT_TRUE(machine.has_value());
    switch (native) {
        case IMAGE_FILE_MACHINE_AMD64: EXPECT_EQ(*machine, "x86_64"); break;
        case IMAGE_FILE_MACHINE_ARM64: EXPECT_EQ(*machine, "arm64"); break;
        default: ADD_FAILURE() << "native machine " << native << " reported as " << *machine;
    }
}

TEST(WindowsSystemFactsTest, ModelIsTrimmedWhenTheFirmwareNamesOne) {
    // Absent under wine and in many virtual machines; a present one is never blank or padded.
    if (const auto model = os::model()) {
        ASSERT_FALSE(model->empty());
        EXPECT_NE(model->front(), ' ');
        EXPECT_NE(model->back(), ' ');
        EXPECT_EQ(model->find('\0'), std::string::npos);
    }
}

TEST(WindowsSystemFactsTest, LocaleNamesGiveLanguageAndRegion) {
    struct Case {
        const char* name;
        std::optional<std::string> language, region;
    };
    for (const auto& c : std::vector<Case>{
             {"en-US", "en", "US"},
             {"de-AT", "de", "AT"},
             {"EN-gb", "en", "GB"},                    // cased as the POSIX parser does
             {"zh-Hans-CN", "zh", "CN"},               // the script is left out
             {"sr-Latn", "sr", std::nullopt},          // a script without a region
             {"es-419", "es", "419"},                  // a numeric region
             {"de-DE_phoneb", "de", "DE"},             // a sort order
             {"zh-yue-HK", "zh", "HK"},                // an extended language
             {"ca-ES-valencia", "ca", "ES"},           // a variant after the region
             {"fil", "fil", std::nullopt},             // three-letter language, no region
             {"en-Latn-Latn-US", "en", std::nullopt},  // a second script is not a region
             {"en-USA", "en", std::nullopt},           // three letters are no region
             {"x-IV", std::nullopt, std::nullopt},
             {"", std::nullopt, std::nullopt},
             {"e1-US", std::nullopt, std::nullopt},
             {"en.UTF-8", std::nullopt, std::nullopt},
         }) {
        const LocaleCodes codes = win::parseLocaleName(c.name);
        EXPECT_EQ(codes.languageCode, c.language) << c.name;
        EXPECT_EQ(codes.regionCode, c.region) << c.name;
    }
    // The user's own locale: every Windows user has one with a language.
    const LocaleCodes current = os::currentLocale();
    ASSERT_TRUE(current.languageCode.has_value());
    EXPECT_TRUE(std::regex_match(*current.languageCode, std::regex("[a-z]{2,3}"))) << *current.languageCode;
}

TEST(WindowsRandomTest, FillsEveryByteAndDiffersEachCall) {
    const std::array<unsigned char, 32> zeros{};
    std::array<unsigned char, 32> a{}, b{};
    os::fillRandom(a.data(), a.size());
    os::fillRandom(b.data(), b.size());
    EXPECT_NE(a, zeros);
    EXPECT_NE(a, b);

    // A large request is filled to its end: no 4 KiB page is left as it was,
    // and the byte values spread as random bytes do.
    constexpr std::size_t kSize = 8 << 20;
    std::vector<unsigned char> big(kSize, 0);
    os::fillRandom(big.data(), big.size());
    for (std::size_t page = 0; page < kSize; page += 4096)
        ASSERT_TRUE(std::any_of(big.begin() + page, big.begin() + page + 4096, [](unsigned char c) { return c != 0; }))
            << "page at " << page << " left unfilled";
    std::array<std::size_t, 256> counts{};
    for (unsigned char c : big) ++counts[c];
    const auto [fewest, most] = std::minmax_element(counts.begin(), counts.end());
    // Expected 32768 each; five standard deviations (about 900) either way.
    EXPECT_GT(*fewest, 31000u);
    EXPECT_LT(*most, 34500u);

    std::array<unsigned char, 64> secret;
    secret.fill(0xA5);
    os::secureZero(secret.data(), secret.size());
    EXPECT_TRUE(std::all_of(secret.begin(), secret.end(), [](unsigned char c) { return c == 0; }));
}

TEST(WindowsThreadNameTest, NamesTheCallingThread) {
    // Read back through the system where it can tell (Windows 10 1607 and later, wine).
    using GetDescription = HRESULT(WINAPI*)(HANDLE, PWSTR*);
    const auto getDescription = reinterpret_cast<GetDescription>(
        reinterpret_cast<void (*)()>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "GetThreadDescription")));
    std::wstring named;
    std::thread([&] {
        os::nameThread("com.tavrin.pool \xC3\xA9");  // UTF-8 "é"
        PWSTR description = nullptr;
        if (getDescription && SUCCEEDED(getDescription(GetCurrentThread(), &description)) && description) {
            named = description;
            LocalFree(description);
        }
    }).join();
    if (!getDescription) GTEST_SKIP() << "the system cannot tell a thread's name";
    EXPECT_EQ(named, L"com.tavrin.pool \u00E9");
}

TEST(WindowsExecutableTest, NameIsTheProgramsFileNameWithoutExe) {
    // The C runtime's record of the program's path, kept apart from the module's file name.
    ASSERT_NE(_wpgmptr, nullptr);
    const std::filesystem::path path(_wpgmptr);
    ASSERT_EQ(path.extension(), ".exe");
    const auto name = os::executableName();
    ASSERT_TRUE(name.has_value());
    EXPECT_EQ(*name, path.stem().string()) << path;
}

TEST(WindowsDataDirectoryTest, AbsoluteAndEndingWithTheUtf8Name) {
    const auto directory = os::defaultDataDirectory("com.example.Shop");
    EXPECT_TRUE(directory.is_absolute()) << directory;
    EXPECT_EQ(directory.filename(), "com.example.Shop");
    // Under the user's local application data, which the system also names in the environment.
    const char* local = std::getenv("LOCALAPPDATA");
    ASSERT_NE(local, nullptr);
    std::error_code error;
    EXPECT_TRUE(directory.parent_path() == std::filesystem::path(local) ||
                std::filesystem::equivalent(directory.parent_path(), local, error))
        << directory;
    // A name outside the ANSI code page arrives whole.
    EXPECT_EQ(os::defaultDataDirectory("Caf\xC3\xA9 \xE6\x97\xA5").filename().wstring(), L"Caf\u00E9 \u65E5");
}

// The debug output as a viewer without a debugger receives it: a buffer and two
// events of agreed names, answered one line at a time.
class DebugOutputCapture {
public:
    DebugOutputCapture() {
        bufferReady_ = CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_BUFFER_READY");
        const bool taken = GetLastError() == ERROR_ALREADY_EXISTS;
        dataReady_ = CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_DATA_READY");
        mapping_ = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, L"DBWIN_BUFFER");
        if (mapping_) view_ = static_cast<const char*>(MapViewOfFile(mapping_, FILE_MAP_READ, 0, 0, 4096));
        usable_ = !taken && bufferReady_ && dataReady_ && view_ && !IsDebuggerPresent();
        if (usable_) SetEvent(bufferReady_);
    }
    ~DebugOutputCapture() {
        if (view_) UnmapViewOfFile(view_);
        for (HANDLE h : {mapping_, dataReady_, bufferReady_})
            if (h) CloseHandle(h);
    }
    // Another viewer or a debugger already takes the output.
    bool usable() const { return usable_; }
    // The next line written by this process, or empty after two seconds.
    std::string next() {
        for (;;) {
            if (WaitForSingleObject(dataReady_, 2000) != WAIT_OBJECT_0) return {};
            DWORD pid;
            std::memcpy(&pid, view_, sizeof pid);
            std::string text(view_ + sizeof pid, strnlen(view_ + sizeof pid, 4096 - sizeof pid));
            SetEvent(bufferReady_);
            if (pid == GetCurrentProcessId()) return text;
        }
    }

private:
    HANDLE bufferReady_ = nullptr, dataReady_ = nullptr, mapping_ = nullptr;
    const char* view_ = nullptr;
    bool usable_ = false;
};

TEST(DebugOutputSinkTest, WritesOneSyslogStyleLinePerRecord) {
    DebugOutputSink sink;
    EXPECT_TRUE(sink.isEnabled(LogType::info));
    EXPECT_TRUE(sink.isEnabled(LogType::error));
    EXPECT_EQ(sink.isEnabled(LogType::debug), IsDebuggerPresent() != 0);

    DebugOutputCapture capture;
    if (!capture.usable()) GTEST_SKIP() << "a debugger or another viewer takes the debug output";
    const std::string pid = std::to_string(GetCurrentProcessId());
    const std::string stamp = R"([A-Z][a-z]{2} [ 1-3]\d \d{2}:\d{2}:\d{2} )";
    // A writer waits for the viewer to take each line before the next: one at a time.
    auto written = [&](const LogRecord& record) {
        sink.write(record);
        return capture.next();
    };
    std::string line =
        written({LogType::error, "com.tavrin.TavrinSDK", "network", "request failed", LogPrivacy::publicText});
    EXPECT_TRUE(std::regex_match(
        line, std::regex("<11>" + stamp + R"(com\.tavrin\.TavrinSDK\[)" + pid + R"(\]: \[network\] request failed\n)")))
        << line;
    // Private text is written as given, as the syslog sink does.
    line = written({LogType::info, "com.example.shop", "default", "level: debug", LogPrivacy::privateText});
    EXPECT_TRUE(std::regex_match(
        line, std::regex("<14>" + stamp + R"(com\.example\.shop\[)" + pid + R"(\]: \[default\] level: debug\n)")))
        << line;
    line = written({LogType::debug, "s", "c", "", LogPrivacy::publicText});
    EXPECT_TRUE(std::regex_match(line, std::regex("<15>" + stamp + R"(s\[)" + pid + R"(\]: \[c\] \n)"))) << line;
}

}  // namespace
}  // namespace tavrin::platform
