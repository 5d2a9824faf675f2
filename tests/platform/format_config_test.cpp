#include <gtest/gtest.h>

#include <string>

#include "platform/base/config.h"
#include "platform/base/exceptions.h"
#include "platform/base/format.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

using Pelinor::Format;
using Pelinor::Service::Config;
using Pelinor::Service::LogLevel;

TEST(Format, PlaceholdersTakeTypedArgumentsInAnyOrder) {
    EXPECT_EQ(Format("%1%2%3%4%5%6", "/d/", ".", "cpu", "-", 2, ".json"), "/d/.cpu-2.json");
    EXPECT_EQ(Format("%2 before %1", "a", -7), "-7 before a");
    EXPECT_EQ(Format("%1", uint64_t{18446744073709551615u}), "18446744073709551615");
    // A placeholder without an argument, and "%%", stand as written.
    EXPECT_EQ(Format("%1 %2 100%% %", "x"), "x %2 100% %");
    // An argument's own "%1" is not expanded again.
    EXPECT_EQ(Format("%1 %2", "%2", "b"), "%2 b");
}

// Read strictly from a file, and a missing file is empty.
TEST(Config, ReadsKeyPathsAndConvertsStrictly) {
    TessardTest::LogCapture log;
    auto config = Config::Parse(R"(<?xml version="1.0"?>
        <config>
          <!-- comment -->
          <httpPort> 8080 </httpPort>
          <neg>-12</neg><plus>+3</plus><big>2147483648</big><junk>12ab</junk><empty></empty>
          <pluginOverrides><fast><timePeriodMin>7</timePeriodMin></fast>
            <disk><enabled>YES</enabled></disk><mem><enabled>0</enabled></mem>
            <load><enabled>maybe</enabled></load></pluginOverrides>
        </config>)");
    const std::pair<std::string, int32_t> ints[] = {
        {"httpPort", 8080}, {"neg", -12}, {"plus", 3}, {"pluginOverrides/fast/timePeriodMin", 7}};
    for (auto [key, expected] : ints) {
        int32_t value = 0;
        EXPECT_TRUE(config->GetInt(key, value) && value == expected) << key << " " << value;
    }
    for (std::string key : {"big", "junk", "empty", "absent", "pluginOverrides/fast/absent"}) {
        int32_t value = 42;
        EXPECT_FALSE(config->GetInt(key, value)) << key;
        EXPECT_EQ(value, 42) << key << ": a failed read leaves its output alone";
    }
    EXPECT_TRUE(
        log.Has(LogLevel::Warning, "Configuration key junk has an invalid value: '12ab' (text:5)"));

    bool yes = false, no = true, unchanged = true;
    EXPECT_TRUE(config->GetBool("pluginOverrides/disk/enabled", yes) && yes);
    EXPECT_TRUE(config->GetBool("pluginOverrides/mem/enabled", no) && !no);
    EXPECT_FALSE(config->GetBool("pluginOverrides/load/enabled", unchanged) || !unchanged);
    EXPECT_THROW(Config::Parse("<settings><httpPort>1</httpPort></settings>"), Pelinor::Exception);

    TessardTest::TempDir dir;
    int32_t port = 1;
    EXPECT_FALSE(Config::Load(dir / "absent.xml")->GetInt("httpPort", port));
    EXPECT_TRUE(log.Has(LogLevel::Warning, "Configuration file " + (dir / "absent.xml") +
                                               " not found; using defaults"));
}

}  // namespace
