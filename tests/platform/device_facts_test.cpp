#include "tavrin/platform/device_facts.h"
#include "tavrin/platform/internal/device_facts_files.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace tavrin::platform {
namespace {

using testing::TempDir;
constexpr auto none = std::nullopt;

void writeFile(const std::filesystem::path& path, const std::string& content) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

TEST(DeviceFactsModel, DmiThenDeviceTreeThenAbsent) {
    TempDir root;
    EXPECT_EQ(detail::readModel(root.path()), none);
    // Device-tree strings end in NUL; a blank DMI name does not hide them.
    writeFile(root / "proc/device-tree/model", std::string("Raspberry Pi 4 Model B Rev 1.4\0", 31));
    writeFile(root / "sys/class/dmi/id/product_name", " \n");
    EXPECT_EQ(detail::readModel(root.path()), "Raspberry Pi 4 Model B Rev 1.4");
    writeFile(root / "sys/class/dmi/id/product_name", "ThinkPad X1 Carbon Gen 11  \n");
    EXPECT_EQ(detail::readModel(root.path()), "ThinkPad X1 Carbon Gen 11");
}

TEST(DeviceFactsOsRelease, ValuesWithShellQuoting) {
    TempDir root;
    writeFile(root / "etc/os-release",
              "# comment NAME=Wrong\n"
              "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"
              "NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nVERSION='12 (bookworm)'\nID=debian\n"
              "ODD=\"say \\\"hi\\\" \\$HOME\\\\\"\nMIXED=a\"b c\"'d'\nBROKEN=\"open\nEMPTY=\n");
    // A prefix of a key is not the key.
    for (const auto& [key, expected] : std::initializer_list<std::pair<const char*, std::optional<std::string>>>{
             {"VERSION", "12 (bookworm)"}, {"ID", "debian"}, {"ODD", "say \"hi\" $HOME\\"}, {"MIXED", "ab cd"},
             {"BROKEN", none}, {"EMPTY", none}, {"VERSION_", none}, {"PRETTY", none}})
        EXPECT_EQ(detail::readOsReleaseValue(root.path(), key), expected) << key;
}

TEST(DeviceFactsOsRelease, NameAndVersionFromEtcElseUsrLib) {
    TempDir root;
    const auto expect = [&](const std::string& name, std::optional<std::string> version) {
        EXPECT_EQ(detail::readSystemName(root.path()), name);
        EXPECT_EQ(detail::readSystemVersion(root.path()), version);
    };
    expect("Linux", none);  // no file at all: the default name, no version
    writeFile(root / "usr/lib/os-release", "NAME=Fedora\nVERSION_ID=40\n");
    expect("Fedora", "40");
    // /etc wins when it exists, even when it lacks the key (a rolling release without VERSION_ID).
    writeFile(root / "etc/os-release", "NAME=\"Debian GNU/Linux\"\nVERSION_CODENAME=trixie\n");
    expect("Debian GNU/Linux", none);
    writeFile(root / "etc/os-release", "ID=alpine\nVERSION_ID=3.20.1\n");
    expect("Linux", "3.20.1");
}

TEST(DeviceFactsLocale, ParsesPosixLocaleNames) {
    const LocaleCodes neither{none, none};
    for (const auto& [name, expected] : std::initializer_list<std::pair<const char*, LocaleCodes>>{
             {"de_AT.UTF-8", {"de", "AT"}}, {"de_AT", {"de", "AT"}}, {"en", {"en", none}},
             {"en.UTF-8", {"en", none}}, {"sr_RS@latin", {"sr", "RS"}}, {"ca_ES.UTF-8@valencia", {"ca", "ES"}},
             {"es_419.UTF-8", {"es", "419"}}, {"fil_PH", {"fil", "PH"}}, {"EN_us", {"en", "US"}},
             {"de_Austria", {"de", none}}, {"de_", {"de", none}}, {"C", neither}, {"C.UTF-8", neither},
             {"POSIX", neither}, {"", neither}, {"x", neither}, {"german", neither}, {"d3_AT", neither},
             {"/usr/share/locale/de", neither}}) {
        const auto got = DeviceFacts::parseLocale(name);
        EXPECT_EQ(got.languageCode, expected.languageCode) << '"' << name << '"';
        EXPECT_EQ(got.regionCode, expected.regionCode) << '"' << name << '"';
    }
}

TEST(DeviceFactsLocale, FirstOfLcAllLcMessagesLangThatIsSet) {
    const char* const names[] = {"LC_ALL", "LC_MESSAGES", "LANG"};
    std::optional<std::string> saved[3];
    for (int i = 0; i < 3; ++i)
        if (const char* value = std::getenv(names[i])) saved[i] = value;
    struct Case {
        const char* values[3];
        LocaleCodes expected;
    };
    int index = 0;  // of the case, for messages
    for (const auto& c : {Case{{"fr_CA.UTF-8", "de_AT.UTF-8", "en_US.UTF-8"}, {"fr", "CA"}},
                          Case{{"", "de_AT.UTF-8", "en_US.UTF-8"}, {"de", "AT"}},
                          Case{{nullptr, nullptr, "en_US.UTF-8"}, {"en", "US"}},
                          // The first one set decides, even when it names no language.
                          Case{{"C", nullptr, "en_US.UTF-8"}, {none, none}},
                          Case{{nullptr, nullptr, nullptr}, {none, none}}}) {
        for (int i = 0; i < 3; ++i) c.values[i] ? setenv(names[i], c.values[i], 1) : unsetenv(names[i]);
        EXPECT_EQ(DeviceFacts::currentLocale(), c.expected) << "case " << index;
        ++index;
    }
    for (int i = 0; i < 3; ++i) saved[i] ? setenv(names[i], saved[i]->c_str(), 1) : unsetenv(names[i]);
}

TEST(DeviceFactsHost, InfoDictionaryUntilReset) {
    DeviceFacts::reset();
    EXPECT_EQ(DeviceFacts::bundleIdentifier(), none);
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleShortVersionString"), none);
    ApplicationInfo info{"com.example.shop", {{"CFBundleDisplayName", "Shop"}, {"CFBundleVersion", "18"}}};
    DeviceFacts::setApplicationInfo(info);
    DeviceFacts::setScreenBounds(ScreenBounds{1, 2});
    EXPECT_EQ(DeviceFacts::bundleIdentifier(), "com.example.shop");
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleDisplayName"), "Shop");
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleShortVersionString"), none);
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleVersion"), "18");
    EXPECT_EQ(DeviceFacts::infoDictionaryString("Other"), none);
    DeviceFacts::reset();
    EXPECT_EQ(DeviceFacts::bundleIdentifier(), none);
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleVersion"), none);
    EXPECT_FALSE(DeviceFacts::screenBounds().has_value());
    // The bundle name, and only that key, falls back to the executable's name.
    EXPECT_EQ(DeviceFacts::executableName(), "platform_device_facts_test");
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleName"), "platform_device_facts_test");
    DeviceFacts::setApplicationInfo({none, {{"CFBundleName", "Shop"}}});
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleName"), "Shop");
    DeviceFacts::reset();
}

TEST(DeviceFactsHost, ScreenBoundsThatAreNoSizeAreRefusedAndTheLastGoodOneKept) {
    DeviceFacts::reset();
    tavrin::testing::LogCapture log;
    DeviceFacts::setScreenBounds(ScreenBounds{390, 844.5});
    for (const auto& [width, height] : std::initializer_list<std::pair<double, double>>{
             {std::nan(""), 844}, {390, INFINITY}, {-INFINITY, 1}, {9223372036854775808.0, 1}, {-1, 844}}) {
        DeviceFacts::setScreenBounds(ScreenBounds{width, height});
        ASSERT_TRUE(DeviceFacts::screenBounds().has_value());
        EXPECT_EQ(DeviceFacts::screenBounds()->width, 390) << width << " x " << height;
        EXPECT_EQ(DeviceFacts::screenBounds()->height, 844.5) << width << " x " << height;
    }
    const auto errors = log.sink->messages(LogType::error);
    ASSERT_EQ(errors.size(), 5u);
    EXPECT_EQ(errors[0], "Screen bounds nan by 844 refused: width and height are points from 0 up to 2^63.");
    EXPECT_EQ(errors[3], "Screen bounds 9223372036854775808 by 1 refused: width and height are points from 0 up to 2^63.");
    // The largest size that still converts, and clearing, are accepted.
    DeviceFacts::setScreenBounds(ScreenBounds{9223372036854774784.0, 0});
    EXPECT_EQ(DeviceFacts::screenBounds()->width, 9223372036854774784.0);
    DeviceFacts::setScreenBounds(std::nullopt);
    EXPECT_FALSE(DeviceFacts::screenBounds().has_value());
    EXPECT_EQ(log.sink->messages(LogType::error).size(), 5u);
    DeviceFacts::reset();
}

}  // namespace
}  // namespace tavrin::platform
