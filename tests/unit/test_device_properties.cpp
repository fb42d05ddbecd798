#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <regex>
#include <string>

#include "flashaging/environment.h"
#include "flashaging/environment_internal.h"
#include "platform/properties.h"

// The property door for these tests: values from a table, written as the property system
// does, into PROPERTY_VALUE_MAX bytes. A value of 92 or more characters fills all 92 bytes
// without a terminator, so the reader's forced NUL is exercised.
static std::map<std::string, std::string> g_props;

extern "C" int property_get(const char *key, char *value, const char *default_value) {
    auto it = g_props.find(key);
    std::string v = it != g_props.end() ? it->second : std::string(default_value);
    size_t n = v.size() < PROPERTY_VALUE_MAX ? v.size() + 1 : PROPERTY_VALUE_MAX;
    memcpy(value, v.c_str(), n);
    return static_cast<int>(n);
}

namespace {

std::string capture(const std::function<void()> &fn) {
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

class TempDir : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/flashaging_dev_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        g_props.clear();
    }
    void TearDown() override {
        std::string cmd = "rm -rf " + dir_;
        ASSERT_EQ(system(cmd.c_str()), 0);
    }
    std::string write(const std::string &name, const std::string &content) {
        std::string path = dir_ + "/" + name;
        FILE *f = fopen(path.c_str(), "w");
        EXPECT_NE(f, nullptr);
        fwrite(content.data(), 1, content.size(), f);
        fclose(f);
        return path;
    }
    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    std::string dir_;
};

TEST(Properties, LongValuesAreCutToTheFieldWithoutTouchingTheNext) {
    g_props.clear();
    g_props["ro.product.prjversion"] = std::string(91, 'P');
    g_props["ro.board.platform"] = std::string(120, 'B');
    g_props["ro.serialno"] = std::string(120, 'S');
    device_properties p;
    memset(&p, 'Z', sizeof p);
    read_property(p.prjversion, sizeof p.prjversion, "ro.product.prjversion");
    EXPECT_EQ(std::string(p.prjversion), std::string(9, 'P'));
    EXPECT_EQ(p.platform[0], 'Z');
    read_property(p.platform, sizeof p.platform, "ro.board.platform");
    EXPECT_EQ(std::string(p.platform), std::string(19, 'B'));
    EXPECT_EQ(p.model[0], 'Z');
    // A property read fills 92 bytes; the last of them is forced to NUL.
    read_property(p.serialno, sizeof p.serialno, "ro.serialno");
    EXPECT_EQ(std::string(p.serialno), std::string(91, 'S'));
    EXPECT_EQ(p.build_description[0], 'Z');
    read_property(p.model, sizeof p.model, "ro.product.model");
    EXPECT_STREQ(p.model, "unknown");
}

TEST_F(TempDir, KernelVersionIsReadTerminatedOrReplaced) {
    char uname[256];
    memset(uname, 'Z', sizeof uname);
    std::string version = "Linux version 5.10.0 (builder@host) #1 SMP\n";
    EXPECT_EQ(read_kernel_version(uname, sizeof uname, write("version", version).c_str()), 0);
    EXPECT_EQ(std::string(uname), version);

    std::string longer(300, 'v');
    EXPECT_EQ(read_kernel_version(uname, sizeof uname, write("long", longer).c_str()), 0);
    EXPECT_EQ(std::string(uname), std::string(255, 'v'));

    EXPECT_EQ(read_kernel_version(uname, sizeof uname, path("missing").c_str()), -1);
    EXPECT_STREQ(uname, "unknown");
    // A node that opens but cannot be read (a directory).
    EXPECT_LT(read_kernel_version(uname, sizeof uname, dir_.c_str()), 0);
    EXPECT_STREQ(uname, "unknown-ro");
}

TEST(BootDevice, ClassificationOrder) {
    EXPECT_EQ(classify_bootdevice("ufs"), 1);
    EXPECT_EQ(classify_bootdevice("1d84000.ufshc"), 1);
    EXPECT_EQ(classify_bootdevice("sdhci"), 2);
    EXPECT_EQ(classify_bootdevice("msm_sdcc.1"), 2);
    EXPECT_EQ(classify_bootdevice("SIMULATED bootdevice"), 3);
    EXPECT_EQ(classify_bootdevice("unknown"), 0);
    EXPECT_EQ(classify_bootdevice(""), 0);
    // "ufs" is tested first.
    EXPECT_EQ(classify_bootdevice("sdhci-ufs"), 1);
}

TEST_F(TempDir, BootDeviceFollowsTheFirstNodeThatExists) {
    std::string ufs = path("ufs"), mmc = path("mmc"), emmc = path("emmc");
    device_node_paths nodes{"", ufs.c_str(), mmc.c_str(), emmc.c_str()};
    EXPECT_STREQ(choose_bootdevice(nodes), "SIMULATED bootdevice");
    write("emmc", "x");
    EXPECT_STREQ(choose_bootdevice(nodes), "sdhci");
    unlink(emmc.c_str());
    write("mmc", "x");
    EXPECT_STREQ(choose_bootdevice(nodes), "sdhci");
    write("ufs", "x");
    EXPECT_STREQ(choose_bootdevice(nodes), "ufs");
}

// Runs the extraction on a copy of `text` from its start; returns the field, or "<none>"
// when no line end was found (the field starts out as "<none>").
std::string extract(std::string text, std::string *rest = nullptr) {
    char field[64];
    snprintf(field, sizeof field, "<none>");
    char *after = nullptr;
    bool found = extract_device_value(text.data(), text.data() + text.size(), field, &after);
    if (rest) *rest = found ? std::string(after) : std::string();
    return field;
}

TEST(ValueExtraction, LastTabBeforeTheLineEnd) {
    std::string rest;
    EXPECT_EQ(extract("Device version:\tABC123\nDevice manufacture:\tXYZ\n", &rest), "ABC123");
    EXPECT_EQ(rest, "Device manufacture:\tXYZ\n");
    EXPECT_EQ(extract("Device version:\t\tABC\n"), "ABC");
    EXPECT_EQ(extract("Device version:\tA\tB C\n"), "B C");
    // A tab on a later line does not count.
    EXPECT_EQ(extract("Device version: A\nx\ty\n"), "Device version: A");
    // No tab: the value keeps the label.
    EXPECT_EQ(extract("Device version:ABC\n"), "Device version:ABC");
    // A tab right before the line end gives an empty value.
    EXPECT_EQ(extract("Device version:\t\n"), "");
}

TEST(ValueExtraction, LongValuesAreCutAndLineWithoutEndCopiesNothing) {
    std::string value70(70, 'a');
    for (size_t i = 0; i < value70.size(); ++i) value70[i] = static_cast<char>('a' + i % 26);
    EXPECT_EQ(extract("Device version:\t" + value70 + "\n"), value70.substr(0, 63));
    EXPECT_EQ(extract("Device version:\t" + std::string(63, 'q') + "\n"), std::string(63, 'q'));
    EXPECT_EQ(extract("Device version:\tABC"), "<none>");
}

TEST(StorageInfo, VersionAndMaker) {
    char version[64] = "old";
    char maker[64] = "old";
    std::string text = "Device version:\tABC123\nDevice manufacture:\tXYZ\n";
    std::string out = capture([&] {
        EXPECT_EQ(storage_info_from_text(text.data(), text.size(), version, maker, "/proc/devinfo/ufs"), 0);
    });
    EXPECT_STREQ(version, "ABC123");
    EXPECT_STREQ(maker, "XYZ");
    EXPECT_EQ(out, "");
}

TEST(StorageInfo, MissingLabelsAreLoggedWithThePath) {
    char version[64] = "old";
    char maker[64] = "old";
    std::string text = "Device manufacture:\tXYZ\n";
    std::string out = capture([&] {
        EXPECT_EQ(storage_info_from_text(text.data(), text.size(), version, maker, "/n/ufs"), -1);
    });
    EXPECT_STREQ(version, "unknown");
    EXPECT_STREQ(maker, "old");
    EXPECT_TRUE(std::regex_match(
        out, std::regex(R"(\[[^\]]+\]\[\d+\]\[FLASH\]ERROR:get_storage_info:\d+ Unable to find 'Device version' in /n/ufs\n)")))
        << out;

    // The maker must follow the version's line.
    snprintf(version, sizeof version, "old");
    text = "Device manufacture:\tXYZ\nDevice version:\tV1\n";
    out = capture([&] {
        EXPECT_EQ(storage_info_from_text(text.data(), text.size(), version, maker, "/n/ufs"), -1);
    });
    EXPECT_STREQ(version, "V1");
    EXPECT_STREQ(maker, "unknown");
    EXPECT_NE(out.find("[FLASH]ERROR:get_storage_info:"), std::string::npos);
    EXPECT_NE(out.find(" Unable to find 'Device manufacture' in /n/ufs\n"), std::string::npos) << out;
}

TEST(StorageInfo, LinesWithoutEndLeaveTheFieldsAndTheStatus) {
    char version[64] = "old";
    char maker[64] = "old";
    std::string text = "Device version:\tV1\nDevice manufacture:\tXYZ";
    EXPECT_EQ(storage_info_from_text(text.data(), text.size(), version, maker, "/n"), 0);
    EXPECT_STREQ(version, "V1");
    EXPECT_STREQ(maker, "old");
}

TEST_F(TempDir, StorageNodeThatCannotBeOpenedOrIsEmpty) {
    char version[64] = "old";
    char maker[64] = "old";
    std::string missing = path("ufs");
    std::string out = capture([&] { EXPECT_EQ(storage_info_from_node(missing.c_str(), version, maker), -1); });
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:log_errno:\d+ Failed to open\n)"
                                                 R"(\[FLASH\]WARN:get_storage_info:\d+ Failed to open file )" +
                                                 missing + "\n")))
        << out;

    std::string empty = write("empty", "");
    out = capture([&] { EXPECT_EQ(storage_info_from_node(empty.c_str(), version, maker), -1); });
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[[^\]]+\]\[\d+\]\[FLASH\]INFO:log_errno:\d+ Failed to read file\n)"
                                                 R"(\[FLASH\]WARN:get_storage_info:\d+ Failed to read from )" +
                                                 empty + "\n")))
        << out;
    EXPECT_STREQ(version, "old");
}

TEST_F(TempDir, StorageNodeReadsOnlyItsFirst512Bytes) {
    char version[64] = "";
    char maker[64] = "old";
    std::string node = write("ufs", std::string(500, ' ') + "\nDevice version:\tV9\nDevice manufacture:\tM9\n");
    EXPECT_EQ(storage_info_from_node(node.c_str(), version, maker), -1);
    EXPECT_STREQ(version, "unknown");
    node = write("ufs2", std::string(400, ' ') + "\nDevice version:\tV9\nDevice manufacture:\tM9\n");
    EXPECT_EQ(storage_info_from_node(node.c_str(), version, maker), 0);
    EXPECT_STREQ(version, "V9");
    EXPECT_STREQ(maker, "M9");
}

TEST(SampleCap, PassesThatFitTheTestTime) {
    // 3600 s x 190 MiB/s over 64 GiB.
    EXPECT_EQ(num_samples_cap(20, 3600, 68719476736ULL, 1), 10);
    EXPECT_EQ(num_samples_cap(20, 100, 68719476736ULL, 1), 0);
    // The cap only lowers.
    EXPECT_EQ(num_samples_cap(4, 3600, 1073741824ULL, 1), 4);    // cap 667
    EXPECT_EQ(num_samples_cap(700, 3600, 1073741824ULL, 1), 667);
    // eMMC at 180 MiB/s: 3600 x 188743680 / 1 GiB = 632.8.
    EXPECT_EQ(num_samples_cap(700, 3600, 1073741824ULL, 2), 632);
    // No options: test_time -1 gives a negative cap, so 0 samples.
    EXPECT_EQ(num_samples_cap(3, -1, 68719476736ULL, 1), 0);
    // Simulated or unknown kind, no samples, or an all-ones / zero size: left alone.
    EXPECT_EQ(num_samples_cap(3, 100, 68719476736ULL, 3), 3);
    EXPECT_EQ(num_samples_cap(3, 100, 68719476736ULL, 0), 3);
    EXPECT_EQ(num_samples_cap(0, 100, 68719476736ULL, 1), 0);
    EXPECT_EQ(num_samples_cap(-2, 100, 68719476736ULL, 1), -2);
    EXPECT_EQ(num_samples_cap(3, 100, UINT64_MAX, 1), 3);
    EXPECT_EQ(num_samples_cap(3, 100, 0, 1), 3);
    // The product is formed in 64 bits: no overflow at the top of the int range.
    EXPECT_EQ(num_samples_cap(2147483647, 2147483647, 1ULL << 40, 1), 389119);
}

class DeviceInit : public TempDir {
  protected:
    void SetUp() override {
        TempDir::SetUp();
        version_ = write("version", "Linux version 6.1\n");
        ufs_ = path("ufs");
        mmc_ = path("mmc");
        emmc_ = path("emmc");
        nodes_ = {version_.c_str(), ufs_.c_str(), mmc_.c_str(), emmc_.c_str()};
        args_.num_samples = 20;
        args_.test_time = 3600;
        args_.total_file_size = 68719476736ULL;
    }
    std::string version_, ufs_, mmc_, emmc_;
    device_node_paths nodes_{};
    test_args args_{};
    device_properties props_{};
};

TEST_F(DeviceInit, UfsPhoneFillsTheRecordAndCapsTheSamples) {
    g_props["ro.serialno"] = "SER123";
    g_props["ro.product.model"] = "Model X";
    write("ufs", "Device version:\tABC123\nDevice manufacture:\tXYZ\n");
    EXPECT_EQ(device_properties_init_with(&props_, &args_, nodes_), 0);
    EXPECT_STREQ(props_.serialno, "SER123");
    EXPECT_STREQ(props_.model, "Model X");
    EXPECT_STREQ(props_.build_description, "unknown");
    EXPECT_STREQ(props_.prjversion, "unknown");
    EXPECT_STREQ(props_.uname, "Linux version 6.1\n");
    EXPECT_STREQ(props_.bootdevice, "ufs");
    EXPECT_EQ(props_.storage_type, 1);
    EXPECT_STREQ(props_.device_version, "ABC123");
    EXPECT_STREQ(props_.manufacture, "XYZ");
    EXPECT_STREQ(props_.board_temperature, "");
    EXPECT_EQ(args_.num_samples, 10);
}

TEST_F(DeviceInit, NoDeviceNodeIsASimulatedBootDeviceAndFails) {
    EXPECT_NE(device_properties_init_with(&props_, &args_, nodes_), 0);
    EXPECT_STREQ(props_.bootdevice, "SIMULATED bootdevice");
    EXPECT_EQ(props_.storage_type, 3);
    EXPECT_EQ(args_.num_samples, 20);
}

TEST_F(DeviceInit, MmcBootDeviceIsReadThroughTheEmmcNode) {
    write("mmc", "Device version:\tMMC\nDevice manufacture:\tM\n");
    std::string out = capture([&] { EXPECT_EQ(device_properties_init_with(&props_, &args_, nodes_), -1); });
    EXPECT_STREQ(props_.bootdevice, "sdhci");
    EXPECT_EQ(props_.storage_type, 2);
    EXPECT_NE(out.find("Failed to open file " + emmc_ + "\n"), std::string::npos) << out;
    // eMMC rate: 3600 x 180 MiB/s over 64 GiB = 9.9.
    EXPECT_EQ(args_.num_samples, 9);

    write("emmc", "Device version:\tE1\nDevice manufacture:\tEM\n");
    device_properties again{};
    EXPECT_EQ(device_properties_init_with(&again, &args_, nodes_), 0);
    EXPECT_STREQ(again.device_version, "E1");
}

TEST_F(DeviceInit, KernelVersionFailureAloneFailsTheInit) {
    write("ufs", "Device version:\tABC123\nDevice manufacture:\tXYZ\n");
    std::string missing = path("no_version");
    nodes_.proc_version = missing.c_str();
    EXPECT_EQ(device_properties_init_with(&props_, &args_, nodes_), -1);
    EXPECT_STREQ(props_.uname, "unknown");
    EXPECT_STREQ(props_.device_version, "ABC123");
}

TEST_F(DeviceInit, KnownStorageKindIsNotReclassified) {
    write("ufs", "Device version:\tABC123\nDevice manufacture:\tXYZ\n");
    props_.storage_type = 2;
    EXPECT_EQ(device_properties_init_with(&props_, &args_, nodes_), -1);  // emmc node missing
    EXPECT_EQ(props_.storage_type, 2);
    EXPECT_STREQ(props_.bootdevice, "ufs");
}

}  // namespace
