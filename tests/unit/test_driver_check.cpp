#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <regex>
#include <string>

#include "flashaging/driver_check_internal.h"
#include "flashaging/environment.h"

namespace {

std::string capture(const std::function<void()> &fn) {
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

void counts(const std::string &text, int *pa, int *dl) {
    std::string copy = text;
    FILE *f = fmemopen(copy.data(), copy.size(), "r");
    ASSERT_NE(f, nullptr);
    driver_error_counts(f, pa, dl);
    fclose(f);
}

TEST(DriverCounts, PaLineThenDlLine) {
    int pa = -1, dl = -1;
    counts("unipro_PA_err_cnt:\t\t99\n"
           "unipro_PA_err_total_cnt:\t\t12\n"
           "other line\n"
           "unipro_DL_err_total_cnt:\t\t3\n",
           &pa, &dl);
    EXPECT_EQ(pa, 12);
    EXPECT_EQ(dl, 3);
}

TEST(DriverCounts, DlBeforePaIsNotCounted) {
    int pa = -1, dl = -1;
    counts("unipro_DL_err_total_cnt:\t\t3\nunipro_PA_err_total_cnt:\t\t12\n", &pa, &dl);
    EXPECT_EQ(pa, 12);
    EXPECT_EQ(dl, 0);
    counts("nothing of interest\n", &pa, &dl);
    EXPECT_EQ(pa, 0);
    EXPECT_EQ(dl, 0);
    counts("", &pa, &dl);
    EXPECT_EQ(pa, 0);
    EXPECT_EQ(dl, 0);
}

TEST(DriverStateCheck, LogsTheCountsOfTheNode) {
    char path[] = "/tmp/flashaging_record_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    std::string text = "unipro_PA_err_total_cnt:\t\t12\nunipro_DL_err_total_cnt:\t\t3\n";
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
    std::string out = capture([&] { driver_state_check_at(path); });
    std::regex lines(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:driver_state_check:\d+ Run driver_state_check start!\n\n)"
                     R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:driver_state_check:\d+ PA_cnt_value= 12; DL_cnt_value == 3\n\n)");
    EXPECT_TRUE(std::regex_match(out, lines)) << out;
    unlink(path);

    // No node (an eMMC device): only the start line.
    out = capture([&] { driver_state_check_at(path); });
    EXPECT_TRUE(std::regex_match(
        out, std::regex(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:driver_state_check:\d+ Run driver_state_check start!\n\n)")))
        << out;
}

TEST(FlashErrors, BootDeviceKindDecides) {
    device_properties p{};
    snprintf(p.bootdevice, sizeof p.bootdevice, "ufs");
    EXPECT_EQ(flash_errors_check(&p), 1);
    EXPECT_EQ(p.storage_type, 1);

    device_properties e{};
    snprintf(e.bootdevice, sizeof e.bootdevice, "msm_sdcc.1");
    EXPECT_EQ(flash_errors_check(&e), 1);
    EXPECT_EQ(e.storage_type, 2);

    device_properties s{};
    snprintf(s.bootdevice, sizeof s.bootdevice, "SIMULATED bootdevice");
    EXPECT_EQ(flash_errors_check(&s), 1);
    EXPECT_EQ(s.storage_type, 3);

    // A known kind is not reclassified.
    device_properties k{};
    k.storage_type = 2;
    snprintf(k.bootdevice, sizeof k.bootdevice, "unknown");
    EXPECT_EQ(capture([&] { EXPECT_EQ(flash_errors_check(&k), 1); }), "");
}

TEST(FlashErrors, UnknownBootDeviceIsAnErrorOnEveryCall) {
    device_properties p{};
    snprintf(p.bootdevice, sizeof p.bootdevice, "unknown");
    std::regex line(R"(\[[^\]]+\]\[\d+\]\[FLASH\]ERROR:device_get_flash_errors:\d+ Error reported by the driver 0\n)");
    for (int i = 0; i < 2; ++i) {
        int r = -1;
        std::string out = capture([&] { r = flash_errors_check(&p); });
        EXPECT_EQ(r, 0);
        EXPECT_EQ(p.storage_type, 0);
        EXPECT_TRUE(std::regex_match(out, line)) << out;
    }
    p.storage_type = 4;
    int r = -1;
    std::string out = capture([&] { r = flash_errors_check(&p); });
    EXPECT_EQ(r, 0);
    EXPECT_TRUE(std::regex_match(out, line)) << out;
}

}  // namespace
