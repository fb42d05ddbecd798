// The host property door: build.prop lines read as the phone's property system answers.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/host/properties_host.h"
#include "platform/properties.h"

namespace {

std::string get(std::string text, const char *key, const char *def = "unknown", int *rc = nullptr) {
    FILE *f = fmemopen(text.data(), text.size(), "r");
    EXPECT_NE(f, nullptr);
    char value[PROPERTY_VALUE_MAX];
    memset(value, 'x', sizeof value);
    int n = property_get_from(f, key, value, def);
    fclose(f);
    if (rc) *rc = n;
    return value;
}

TEST(HostProperties, KeyEqualsValueLinesLastDefinitionWins) {
    const std::string prop = "ro.serialno=SIM0123456789\r\nro.product.model=SIMPHONE-1\nro.serialno=SECOND\n";
    int rc = 0;
    EXPECT_EQ(get(prop, "ro.serialno", "unknown", &rc), "SECOND");
    EXPECT_EQ(rc, 6);
    EXPECT_EQ(get(prop, "ro.product.model"), "SIMPHONE-1");
    // A key that only begins another, or is not followed by '=', is not that property.
    EXPECT_EQ(get(prop, "ro.product"), "unknown");
    EXPECT_EQ(get("ro.board.platform sm8450\n", "ro.board.platform"), "unknown");
    EXPECT_EQ(get(prop, "ro.missing", "dflt"), "dflt");
    EXPECT_EQ(get(prop, "ro.missing", nullptr), "");
}

TEST(HostProperties, ValueCutToThePropertyLimit) {
    const std::string long_value(200, 'v');
    int rc = 0;
    std::string got = get("ro.build.description=" + long_value + "\n", "ro.build.description", "unknown", &rc);
    EXPECT_EQ(got, long_value.substr(0, PROPERTY_VALUE_MAX - 1));
    EXPECT_EQ(rc, PROPERTY_VALUE_MAX - 1);
}

TEST(HostProperties, NoFileGivesTheDefault) {
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get_from(nullptr, "ro.serialno", value, "unknown"), 7);
    EXPECT_STREQ(value, "unknown");
}

}  // namespace
