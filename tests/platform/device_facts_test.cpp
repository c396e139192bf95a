#include "tavrin/platform/device_facts.h"
#include "tavrin/platform/linux/device_facts_files.h"

#include <gtest/gtest.h>

#include <array>
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
using testing::writeFile;
constexpr auto none = std::nullopt;

class DeviceFactsTest : public ::testing::Test {
protected:
    void TearDown() override { DeviceFacts::reset(); }
    TempDir root;
};

TEST_F(DeviceFactsTest, ModelFromDmiElseDeviceTree) {
    EXPECT_EQ(detail::readModel(root.path()), none);
    // Device-tree strings end in NUL; a blank DMI name does not hide them.
    writeFile(root / "proc/device-tree/model", std::string("Raspberry Pi 4 Model B Rev 1.4\0", 31));
    writeFile(root / "sys/class/dmi/id/product_name", " \n");
    EXPECT_EQ(detail::readModel(root.path()), "Raspberry Pi 4 Model B Rev 1.4");
    writeFile(root / "sys/class/dmi/id/product_name", "ThinkPad X1 Carbon Gen 11  \n");
    EXPECT_EQ(detail::readModel(root.path()), "ThinkPad X1 Carbon Gen 11");
}

TEST_F(DeviceFactsTest, OsReleaseValuesAreUnquotedAsAShellWould) {
    writeFile(root / "etc/os-release",
              "# comment NAME=Wrong\nVERSION_ID=\"12\"\nVERSION='12 (bookworm)'\nID=debian\n"
              "ODD=\"say \\\"hi\\\" \\$HOME\\\\\"\nMIXED=a\"b c\"'d'\nBROKEN=\"open\nEMPTY=\n");
    for (const auto& [key, expected] :
         std::initializer_list<std::pair<const char*, std::optional<std::string>>>{{"VERSION", "12 (bookworm)"},
                                                                                   {"ID", "debian"},
                                                                                   {"ODD", "say \"hi\" $HOME\\"},
                                                                                   {"MIXED", "ab cd"},
                                                                                   {"BROKEN", none},
                                                                                   {"EMPTY", none},
                                                                                   {"VERSION_", none},
                                                                                   {"NAME", none}})
        EXPECT_EQ(detail::readOsReleaseValue(root.path(), key), expected) << key;
}

// /etc wins when it exists, even when it lacks the key.
TEST_F(DeviceFactsTest, SystemNameAndVersionFromEtcElseUsrLib) {
    EXPECT_EQ(detail::readSystemName(root.path()), "Linux");
    writeFile(root / "usr/lib/os-release", "NAME=Fedora\nVERSION_ID=40\n");
    EXPECT_EQ(detail::readSystemName(root.path()), "Fedora");
    EXPECT_EQ(detail::readSystemVersion(root.path()), "40");
    writeFile(root / "etc/os-release", "ID=alpine\nVERSION_ID=3.20.1\n");
    EXPECT_EQ(detail::readSystemName(root.path()), "Linux");
    EXPECT_EQ(detail::readSystemVersion(root.path()), "3.20.1");
}

TEST_F(DeviceFactsTest, ParsesPosixLocaleNames) {
    const LocaleCodes neither{none, none};
    for (const auto& [name, expected] :
         std::initializer_list<std::pair<const char*, LocaleCodes>>{{"de_AT.UTF-8", {"de", "AT"}},
                                                                    {"en", {"en", none}},
                                                                    {"sr_RS@latin", {"sr", "RS"}},
                                                                    {"ca_ES.UTF-8@valencia", {"ca", "ES"}},
                                                                    {"es_419.UTF-8", {"es", "419"}},
                                                                    {"fil_PH", {"fil", "PH"}},
                                                                    {"EN_us", {"en", "US"}},
                                                                    {"de_Austria", {"de", none}},
                                                                    {"C.UTF-8", neither},
                                                                    {"POSIX", neither},
                                                                    {"", neither},
                                                                    {"german", neither},
                                                                    {"d3_AT", neither},
                                                                    {"/usr/share/locale/de", neither}})
        EXPECT_EQ(DeviceFacts::parseLocale(name), expected) << '"' << name << '"';
}

// The first of LC_ALL, LC_MESSAGES, LANG that is set and not empty decides,
// even when it names no language.
TEST_F(DeviceFactsTest, LocaleFromTheFirstVariableSet) {
    const char* const names[] = {"LC_ALL", "LC_MESSAGES", "LANG"};
    std::optional<std::string> saved[3];
    for (int i = 0; i < 3; ++i)
        if (const char* value = std::getenv(names[i])) saved[i] = value;
    const std::pair<std::array<const char*, 3>, LocaleCodes> cases[] = {
        {{"", "de_AT.UTF-8", "en_US.UTF-8"}, {"de", "AT"}},
        {{nullptr, nullptr, "en_US.UTF-8"}, {"en", "US"}},
        {{"C", nullptr, "en_US.UTF-8"}, {none, none}}};
    for (std::size_t c = 0; c < std::size(cases); ++c) {
        for (int i = 0; i < 3; ++i) cases[c].first[i] ? setenv(names[i], cases[c].first[i], 1) : unsetenv(names[i]);
        EXPECT_EQ(DeviceFacts::currentLocale(), cases[c].second) << "case " << c;
    }
    for (int i = 0; i < 3; ++i) saved[i] ? setenv(names[i], saved[i]->c_str(), 1) : unsetenv(names[i]);
}

TEST_F(DeviceFactsTest, ScreenBoundsThatAreNoSizeAreRefusedAndTheLastGoodOneKept) {
    tavrin::testing::LogCapture log;
    DeviceFacts::setScreenBounds(ScreenBounds{390, 844.5});
    for (const auto& [width, height] :
         {std::pair{std::nan(""), 844.0}, {390, INFINITY}, {9223372036854775808.0, 1}, {-1, 844}}) {
        DeviceFacts::setScreenBounds(ScreenBounds{width, height});
        EXPECT_EQ(DeviceFacts::screenBounds()->width, 390) << width << " x " << height;
        EXPECT_EQ(DeviceFacts::screenBounds()->height, 844.5) << width << " x " << height;
    }
    const auto errors = log.sink->messages(LogType::error);
    ASSERT_EQ(errors.size(), 4u);
    EXPECT_EQ(errors[0], "Screen bounds nan by 844 refused: width and height are points from 0 up to 2^63.");
    DeviceFacts::setScreenBounds(ScreenBounds{9223372036854774784.0, 0});  // the largest that still converts
    EXPECT_EQ(DeviceFacts::screenBounds()->width, 9223372036854774784.0);
}

}  // namespace
}  // namespace tavrin::platform
