#include "tavrin/platform/device_facts.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <optional>
#include <string>

#include "tests/support/temp_dir.h"

namespace tavrin::platform {
namespace {

using testing::TempDir;

void writeFile(const std::filesystem::path& path, const std::string& content) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary);
    out << content;
}

TEST(DeviceFactsModel, DmiThenDeviceTreeThenAbsent) {
    TempDir root;
    EXPECT_EQ(detail::readModel(root.path()), std::nullopt);

    // Device-tree strings end in NUL.
    writeFile(root / "proc/device-tree/model", std::string("Raspberry Pi 4 Model B Rev 1.4\0", 31));
    EXPECT_EQ(detail::readModel(root.path()), "Raspberry Pi 4 Model B Rev 1.4");

    // A blank DMI name does not hide the device tree.
    writeFile(root / "sys/class/dmi/id/product_name", " \n");
    EXPECT_EQ(detail::readModel(root.path()), "Raspberry Pi 4 Model B Rev 1.4");

    writeFile(root / "sys/class/dmi/id/product_name", "ThinkPad X1 Carbon Gen 11  \n");
    EXPECT_EQ(detail::readModel(root.path()), "ThinkPad X1 Carbon Gen 11");
}

TEST(DeviceFactsOsRelease, NameAndVersionWithShellQuoting) {
    TempDir root;
    writeFile(root / "etc/os-release",
              "# comment NAME=Wrong\n"
              "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"
              "NAME=\"Debian GNU/Linux\"\n"
              "VERSION_ID=\"12\"\n"
              "VERSION='12 (bookworm)'\n"
              "ID=debian\n"
              "ODD=\"say \\\"hi\\\" \\$HOME\\\\\"\n"
              "MIXED=a\"b c\"'d'\n"
              "BROKEN=\"open\n"
              "EMPTY=\n");
    EXPECT_EQ(detail::readSystemName(root.path()), "Debian GNU/Linux");
    EXPECT_EQ(detail::readSystemVersion(root.path()), "12");
    EXPECT_EQ(detail::readOsReleaseValue(root.path(), "VERSION"), "12 (bookworm)");
    EXPECT_EQ(detail::readOsReleaseValue(root.path(), "ID"), "debian");
    EXPECT_EQ(detail::readOsReleaseValue(root.path(), "ODD"), "say \"hi\" $HOME\\");
    EXPECT_EQ(detail::readOsReleaseValue(root.path(), "MIXED"), "ab cd");
    EXPECT_EQ(detail::readOsReleaseValue(root.path(), "BROKEN"), std::nullopt);
    EXPECT_EQ(detail::readOsReleaseValue(root.path(), "EMPTY"), std::nullopt);
    // A prefix of a key is not the key.
    EXPECT_EQ(detail::readOsReleaseValue(root.path(), "VERSION_"), std::nullopt);
    EXPECT_EQ(detail::readOsReleaseValue(root.path(), "PRETTY"), std::nullopt);
}

TEST(DeviceFactsOsRelease, FallbacksAndMissingFiles) {
    TempDir root;
    // No file at all: the documented default name, no version.
    EXPECT_EQ(detail::readSystemName(root.path()), "Linux");
    EXPECT_EQ(detail::readSystemVersion(root.path()), std::nullopt);

    // Only the vendor copy.
    writeFile(root / "usr/lib/os-release", "NAME=Fedora\nVERSION_ID=40\n");
    EXPECT_EQ(detail::readSystemName(root.path()), "Fedora");
    EXPECT_EQ(detail::readSystemVersion(root.path()), "40");

    // /etc wins when it exists, even when it lacks the key (a rolling release without VERSION_ID).
    writeFile(root / "etc/os-release", "NAME=\"Debian GNU/Linux\"\nVERSION_CODENAME=trixie\n");
    EXPECT_EQ(detail::readSystemName(root.path()), "Debian GNU/Linux");
    EXPECT_EQ(detail::readSystemVersion(root.path()), std::nullopt);

    writeFile(root / "etc/os-release", "ID=alpine\nVERSION_ID=3.20.1\n");
    EXPECT_EQ(detail::readSystemName(root.path()), "Linux");
    EXPECT_EQ(detail::readSystemVersion(root.path()), "3.20.1");
}

LocaleCodes codes(std::optional<std::string> language, std::optional<std::string> region) {
    return {std::move(language), std::move(region)};
}

TEST(DeviceFactsLocale, ParsesPosixLocaleNames) {
    const std::map<std::string, LocaleCodes> cases = {
        {"de_AT.UTF-8", codes("de", "AT")},
        {"de_AT", codes("de", "AT")},
        {"en", codes("en", std::nullopt)},
        {"en.UTF-8", codes("en", std::nullopt)},
        {"sr_RS@latin", codes("sr", "RS")},
        {"ca_ES.UTF-8@valencia", codes("ca", "ES")},
        {"es_419.UTF-8", codes("es", "419")},
        {"fil_PH", codes("fil", "PH")},
        {"EN_us", codes("en", "US")},
        {"C", codes(std::nullopt, std::nullopt)},
        {"C.UTF-8", codes(std::nullopt, std::nullopt)},
        {"POSIX", codes(std::nullopt, std::nullopt)},
        {"", codes(std::nullopt, std::nullopt)},
        {"x", codes(std::nullopt, std::nullopt)},
        {"german", codes(std::nullopt, std::nullopt)},
        {"d3_AT", codes(std::nullopt, std::nullopt)},
        {"de_Austria", codes("de", std::nullopt)},
        {"de_", codes("de", std::nullopt)},
        {"/usr/share/locale/de", codes(std::nullopt, std::nullopt)},
    };
    for (const auto& [name, expected] : cases) {
        const auto got = DeviceFacts::parseLocale(name);
        EXPECT_EQ(got.languageCode, expected.languageCode) << '"' << name << '"';
        EXPECT_EQ(got.regionCode, expected.regionCode) << '"' << name << '"';
    }
}

// Sets or clears an environment variable for one scope.
class EnvVar {
public:
    EnvVar(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        if (value)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
    ~EnvVar() {
        if (old_)
            setenv(name_, old_->c_str(), 1);
        else
            unsetenv(name_);
    }

private:
    const char* name_;
    std::optional<std::string> old_;
};

TEST(DeviceFactsLocale, FirstOfLcAllLcMessagesLangThatIsSet) {
    {
        EnvVar all("LC_ALL", "fr_CA.UTF-8"), messages("LC_MESSAGES", "de_AT.UTF-8"), lang("LANG", "en_US.UTF-8");
        EXPECT_EQ(DeviceFacts::currentLocale(), codes("fr", "CA"));
    }
    {
        EnvVar all("LC_ALL", ""), messages("LC_MESSAGES", "de_AT.UTF-8"), lang("LANG", "en_US.UTF-8");
        EXPECT_EQ(DeviceFacts::currentLocale(), codes("de", "AT"));
    }
    {
        EnvVar all("LC_ALL", nullptr), messages("LC_MESSAGES", nullptr), lang("LANG", "en_US.UTF-8");
        EXPECT_EQ(DeviceFacts::currentLocale(), codes("en", "US"));
    }
    {
        // The first one set decides, even when it names no language.
        EnvVar all("LC_ALL", "C"), messages("LC_MESSAGES", nullptr), lang("LANG", "en_US.UTF-8");
        EXPECT_EQ(DeviceFacts::currentLocale(), codes(std::nullopt, std::nullopt));
    }
    {
        EnvVar all("LC_ALL", nullptr), messages("LC_MESSAGES", nullptr), lang("LANG", nullptr);
        EXPECT_EQ(DeviceFacts::currentLocale(), codes(std::nullopt, std::nullopt));
    }
}

class DeviceFactsHost : public ::testing::Test {
protected:
    void SetUp() override { DeviceFacts::reset(); }
    void TearDown() override { DeviceFacts::reset(); }
};

TEST_F(DeviceFactsHost, InfoDictionaryTextValuesOnly) {
    EXPECT_EQ(DeviceFacts::bundleIdentifier(), std::nullopt);
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleShortVersionString"), std::nullopt);

    ApplicationInfo info;
    info.bundleIdentifier = "com.example.shop";
    info.infoDictionary = Json{{"CFBundleDisplayName", "Shop"},
                               {"CFBundleShortVersionString", 3},  // a number is not text
                               {"CFBundleVersion", "18"},
                               {"Other", nullptr}};
    DeviceFacts::setApplicationInfo(info);
    EXPECT_EQ(DeviceFacts::bundleIdentifier(), "com.example.shop");
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleDisplayName"), "Shop");
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleShortVersionString"), std::nullopt);
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleVersion"), "18");
    EXPECT_EQ(DeviceFacts::infoDictionaryString("Other"), std::nullopt);
    EXPECT_EQ(DeviceFacts::applicationInfo().infoDictionary, info.infoDictionary);

    for (const Json& odd : {Json(true), Json::array({"Shop"}), Json::object({{"a", "b"}}), Json(1.5)}) {
        DeviceFacts::setApplicationInfo({std::nullopt, Json{{"CFBundleDisplayName", odd}}});
        EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleDisplayName"), std::nullopt) << odd.dump();
    }
    // A dictionary that is not an object has no keys.
    DeviceFacts::setApplicationInfo({std::nullopt, Json::array({"CFBundleVersion"})});
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleVersion"), std::nullopt);

    DeviceFacts::reset();
    EXPECT_EQ(DeviceFacts::bundleIdentifier(), std::nullopt);
}

TEST_F(DeviceFactsHost, BundleNameFallsBackToTheExecutableName) {
    EXPECT_EQ(DeviceFacts::executableName(), "platform_device_facts_test");
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleName"), "platform_device_facts_test");
    // Non-text counts as absent, so the fallback applies.
    DeviceFacts::setApplicationInfo({std::nullopt, Json{{"CFBundleName", 7}}});
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleName"), "platform_device_facts_test");
    DeviceFacts::setApplicationInfo({std::nullopt, Json{{"CFBundleName", "Shop"}}});
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleName"), "Shop");
    // Only the bundle name has that fallback.
    EXPECT_EQ(DeviceFacts::infoDictionaryString("CFBundleDisplayName"), std::nullopt);
}

TEST_F(DeviceFactsHost, ScreenBoundsAreTheHostsUntilReset) {
    EXPECT_FALSE(DeviceFacts::screenBounds().has_value());
    DeviceFacts::setScreenBounds(ScreenBounds{390.7, 844.2});
    ASSERT_TRUE(DeviceFacts::screenBounds().has_value());
    EXPECT_DOUBLE_EQ(DeviceFacts::screenBounds()->width, 390.7);
    EXPECT_DOUBLE_EQ(DeviceFacts::screenBounds()->height, 844.2);
    DeviceFacts::setScreenBounds(std::nullopt);
    EXPECT_FALSE(DeviceFacts::screenBounds().has_value());
    DeviceFacts::setScreenBounds(ScreenBounds{1, 2});
    DeviceFacts::reset();
    EXPECT_FALSE(DeviceFacts::screenBounds().has_value());
}

}  // namespace
}  // namespace tavrin::platform
