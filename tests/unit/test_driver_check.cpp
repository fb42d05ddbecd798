#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "flashaging/driver_check_internal.h"
#include "flashaging/environment.h"
#include "unit_support.h"

namespace {

using namespace ut;

TEST(DriverCounts, PaLineThenDlLineAfterIt) {
    const struct {
        std::string text;
        int pa, dl;
    } cases[] = {
        {"unipro_PA_err_cnt:\t\t99\nunipro_PA_err_total_cnt:\t\t12\nother line\nunipro_DL_err_total_cnt:\t\t3\n", 12, 3},
        {"unipro_DL_err_total_cnt:\t\t3\nunipro_PA_err_total_cnt:\t\t12\n", 12, 0},  // DL before PA is not counted
        {"nothing of interest\n", 0, 0},
        {"", 0, 0},
    };
    for (const auto &c : cases) {
        std::string copy = c.text;
        FILE *f = fmemopen(copy.data(), copy.size(), "r");
        ASSERT_NE(f, nullptr);
        int pa = -1, dl = -1;
        driver_error_counts(f, &pa, &dl);
        fclose(f);
        EXPECT_EQ(pa, c.pa) << c.text;
        EXPECT_EQ(dl, c.dl) << c.text;
    }
}

TEST(DriverStateCheck, LogsTheCountsOfTheNodeIfThereIsOne) {
    ScratchDir tmp;
    const std::string node = put(tmp.file("record"), "unipro_PA_err_total_cnt:\t\t12\nunipro_DL_err_total_cnt:\t\t3\n");
    const std::string start = line("INFO", "driver_state_check", "Run driver_state_check start!\n\n");
    std::string out = capture([&] { driver_state_check_at(node.c_str()); });
    EXPECT_TRUE(matches(out, start + line("INFO", "driver_state_check", "PA_cnt_value= 12; DL_cnt_value == 3\n\n"))) << out;
    // No node (an eMMC device): only the start line.
    out = capture([&] { driver_state_check_at(tmp.file("absent").c_str()); });
    EXPECT_TRUE(matches(out, start)) << out;
}

TEST(FlashErrors, BootDeviceKindDecidesAndAnUnknownOneIsAnError) {
    const struct {
        const char *bootdevice;
        int32_t kind_before, kind_after, result;
    } cases[] = {
        {"msm_sdcc.1", 0, 2, 1},
        {"unknown", 2, 2, 1},  // a known kind is not reclassified
        {"unknown", 0, 0, 0},
        {"unknown", 4, 4, 0},
    };
    for (const auto &c : cases) {
        device_properties p{};
        snprintf(p.bootdevice, sizeof p.bootdevice, "%s", c.bootdevice);
        p.storage_type = c.kind_before;
        int r = -1;
        std::string out = capture([&] { r = flash_errors_check(&p); });
        EXPECT_EQ(r, c.result) << c.bootdevice << " " << c.kind_before;
        EXPECT_EQ(p.storage_type, c.kind_after);
        EXPECT_TRUE(matches(out, c.result ? "" : line("ERROR", "device_get_flash_errors", "Error reported by the driver 0\n")))
            << out;
    }
}

}  // namespace
