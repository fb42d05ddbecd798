#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <map>
#include <string>

#include "flashaging/environment.h"
#include "flashaging/environment_internal.h"
#include "platform/properties.h"
#include "unit_support.h"

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

using namespace ut;

TEST(Properties, LongValuesAreCutToTheFieldWithoutTouchingTheNext) {
    g_props = {{"ro.product.prjversion", std::string(91, 'P')},
               {"ro.board.platform", std::string(120, 'B')},
               {"ro.serialno", std::string(120, 'S')}};
    device_properties p;
    memset(&p, 'Z', sizeof p);
    read_property(p.prjversion, sizeof p.prjversion, "ro.product.prjversion");
    read_property(p.platform, sizeof p.platform, "ro.board.platform");
    EXPECT_EQ(std::string(p.prjversion), std::string(9, 'P'));
    EXPECT_EQ(std::string(p.platform), std::string(19, 'B'));
    EXPECT_EQ(p.model[0], 'Z');
    // A property read fills 92 bytes; the last of them is forced to NUL.
    read_property(p.serialno, sizeof p.serialno, "ro.serialno");
    EXPECT_EQ(std::string(p.serialno), std::string(91, 'S'));
    EXPECT_EQ(p.build_description[0], 'Z');
    read_property(p.model, sizeof p.model, "ro.product.model");
    EXPECT_STREQ(p.model, "unknown");
}

TEST(KernelVersion, ReadTerminatedOrReplaced) {
    ScratchDir tmp;
    char uname[256];
    std::string version = "Linux version 5.10.0 (builder@host) #1 SMP\n";
    EXPECT_EQ(read_kernel_version(uname, sizeof uname, put(tmp.file("v"), version).c_str()), 0);
    EXPECT_EQ(std::string(uname), version);
    // A long text fills all 256 bytes of the field, without a terminator and without
    // touching the field behind it.
    device_properties p;
    memset(&p, 'Z', sizeof p);
    p.storage_type = 0x5A5A5A5A;
    EXPECT_EQ(read_kernel_version(p.uname, sizeof p.uname, put(tmp.file("long"), std::string(300, 'v')).c_str()), 0);
    EXPECT_EQ(std::string(p.uname, sizeof p.uname), std::string(256, 'v'));
    EXPECT_EQ(p.storage_type, 0x5A5A5A5A);
    memset(uname, 'Z', sizeof uname);
    EXPECT_EQ(read_kernel_version(uname, sizeof uname, put(tmp.file("255"), std::string(255, 'w')).c_str()), 0);
    EXPECT_EQ(std::string(uname), std::string(255, 'w'));
    EXPECT_EQ(read_kernel_version(uname, sizeof uname, tmp.file("missing").c_str()), -1);
    EXPECT_STREQ(uname, "unknown");
    // A node that opens but cannot be read (a directory).
    EXPECT_LT(read_kernel_version(uname, sizeof uname, tmp.path().c_str()), 0);
    EXPECT_STREQ(uname, "unknown-ro");
}

TEST(BootDevice, ClassificationOrderAndTheFirstNodeThatExists) {
    const std::pair<const char *, int> kinds[] = {{"ufs", 1},     {"1d84000.ufshc", 1}, {"sdhci", 2},
                                                  {"msm_sdcc.1", 2}, {"SIMULATED bootdevice", 3},
                                                  {"unknown", 0}, {"", 0},
                                                  {"sdhci-ufs", 1}};  // "ufs" is tested first
    for (const auto &[name, kind] : kinds) EXPECT_EQ(classify_bootdevice(name), kind) << name;

    ScratchDir tmp;
    std::string ufs = tmp.file("ufs"), mmc = tmp.file("mmc"), emmc = tmp.file("emmc");
    device_node_paths nodes{"", ufs.c_str(), mmc.c_str(), emmc.c_str()};
    EXPECT_STREQ(choose_bootdevice(nodes), "SIMULATED bootdevice");
    put(emmc, "x");
    EXPECT_STREQ(choose_bootdevice(nodes), "sdhci");
    unlink(emmc.c_str());
    put(mmc, "x");
    EXPECT_STREQ(choose_bootdevice(nodes), "sdhci");
    put(ufs, "x");
    EXPECT_STREQ(choose_bootdevice(nodes), "ufs");
}

TEST(ValueExtraction, LastTabBeforeTheLineEnd) {
    std::string alphabet70(70, 'a');
    for (size_t i = 0; i < alphabet70.size(); ++i) alphabet70[i] = static_cast<char>('a' + i % 26);
    const struct {
        std::string text, value, rest;
    } cases[] = {
        {"Device version:\tABC123\nDevice manufacture:\tXYZ\n", "ABC123", "Device manufacture:\tXYZ\n"},
        {"Device version:\t\tABC\n", "ABC", ""},
        {"Device version:\tA\tB C\n", "B C", ""},
        {"Device version: A\nx\ty\n", "Device version: A", "x\ty\n"},  // a later line's tab does not count
        {"Device version:ABC\n", "Device version:ABC", ""},             // no tab: the label stays
        {"Device version:\t\n", "", ""},
        {"Device version:\t" + alphabet70 + "\n", alphabet70.substr(0, 63), ""},
        {"Device version:\t" + std::string(63, 'q') + "\n", std::string(63, 'q'), ""},
        {"Device version:\tABC", "<none>", "<none>"},  // no line end: nothing is copied
    };
    for (const auto &c : cases) {
        std::string text = c.text;
        char field[64] = "<none>";
        char *after = nullptr;
        bool found = extract_device_value(text.data(), text.data() + text.size(), field, &after);
        EXPECT_EQ(field, c.value) << c.text;
        EXPECT_EQ(found ? std::string(after) : "<none>", c.rest) << c.text;
    }
}

TEST(StorageInfo, VersionThenMakerWithMissingLabelsLoggedByPath) {
    const struct {
        std::string text;
        int rc;
        const char *version, *maker, *missing;
    } cases[] = {
        {"Device version:\tABC123\nDevice manufacture:\tXYZ\n", 0, "ABC123", "XYZ", ""},
        {"Device manufacture:\tXYZ\n", -1, "unknown", "old", "Device version"},
        // The maker must follow the version's line.
        {"Device manufacture:\tXYZ\nDevice version:\tV1\n", -1, "V1", "unknown", "Device manufacture"},
        // A line without its end leaves the field and the status alone.
        {"Device version:\tV1\nDevice manufacture:\tXYZ", 0, "V1", "old", ""},
    };
    for (const auto &c : cases) {
        char version[64] = "old", maker[64] = "old";
        std::string text = c.text;
        int rc = 9;
        std::string out = capture([&] { rc = storage_info_from_text(text.data(), text.size(), version, maker, "/n/ufs"); });
        EXPECT_EQ(rc, c.rc) << c.text;
        EXPECT_STREQ(version, c.version) << c.text;
        EXPECT_STREQ(maker, c.maker) << c.text;
        const std::string message = std::string("Unable to find '") + c.missing + "' in /n/ufs\n";
        EXPECT_TRUE(matches(out, *c.missing ? line("ERROR", "get_storage_info", message) : "")) << out;
    }
}

TEST(StorageInfo, NodeThatCannotBeOpenedOrIsEmptyAndOnlyItsFirst512Bytes) {
    ScratchDir tmp;
    char version[64] = "old", maker[64] = "old";
    std::string missing = tmp.file("ufs");
    std::string out = capture([&] { EXPECT_EQ(storage_info_from_node(missing.c_str(), version, maker), -1); });
    EXPECT_TRUE(matches(out, line("INFO", "log_errno", "Failed to open\n") +
                                 bare("WARN", "get_storage_info", "Failed to open file " + missing + "\n")))
        << out;
    std::string empty = put(tmp.file("empty"), "");
    out = capture([&] { EXPECT_EQ(storage_info_from_node(empty.c_str(), version, maker), -1); });
    EXPECT_TRUE(matches(out, line("INFO", "log_errno", "Failed to read file\n") +
                                 bare("WARN", "get_storage_info", "Failed to read from " + empty + "\n")))
        << out;
    EXPECT_STREQ(version, "old");

    const std::string labels = "\nDevice version:\tV9\nDevice manufacture:\tM9\n";
    std::string node = put(tmp.file("late"), std::string(500, ' ') + labels);
    capture([&] { EXPECT_EQ(storage_info_from_node(node.c_str(), version, maker), -1); });
    EXPECT_STREQ(version, "unknown");
    node = put(tmp.file("early"), std::string(400, ' ') + labels);
    EXPECT_EQ(storage_info_from_node(node.c_str(), version, maker), 0);
    EXPECT_STREQ(version, "V9");
    EXPECT_STREQ(maker, "M9");
}

TEST(SampleCap, PassesThatFitTheTestTime) {
    constexpr uint64_t k64G = 68719476736ULL, k1G = 1073741824ULL;
    const struct {
        int samples, time;
        uint64_t total;
        int kind, expected;
    } cases[] = {
        {20, 3600, k64G, 1, 10},  // 3600 s x 190 MiB/s over 64 GiB
        {20, 100, k64G, 1, 0},
        {4, 3600, k1G, 1, 4},  // the cap (667) only lowers
        {700, 3600, k1G, 1, 667},
        {700, 3600, k1G, 2, 632},  // eMMC at 180 MiB/s: 632.8
        {3, -1, k64G, 1, 0},       // no options: a negative cap, so 0 samples
        // Simulated or unknown kind, no samples, or an all-ones / zero size: left alone.
        {3, 100, k64G, 3, 3},
        {3, 100, k64G, 0, 3},
        {0, 100, k64G, 1, 0},
        {-2, 100, k64G, 1, -2},
        {3, 100, UINT64_MAX, 1, 3},
        {3, 100, 0, 1, 3},
        {2147483647, 2147483647, 1ULL << 40, 1, 389119},  // the product is formed in 64 bits
    };
    for (const auto &c : cases)
        EXPECT_EQ(num_samples_cap(c.samples, c.time, c.total, c.kind), c.expected)
            << c.samples << " " << c.time << " " << c.total << " " << c.kind;
}

TEST(DeviceInit, FillsTheRecordReadsTheNodeOfItsKindAndCapsTheSamples) {
    ScratchDir tmp;
    g_props = {{"ro.serialno", "SER123"}};
    const std::string version = put(tmp.file("version"), "Linux version 6.1\n"), ufs = tmp.file("ufs"),
                      mmc = tmp.file("mmc"), emmc = tmp.file("emmc"), absent = tmp.file("absent");
    device_node_paths nodes{version.c_str(), ufs.c_str(), mmc.c_str(), emmc.c_str()};
    test_args args{};
    args.test_time = 3600;
    args.total_file_size = 68719476736ULL;
    const auto init = [&](device_properties *p) {
        int rc = 9;
        args.num_samples = 20;
        capture([&] { rc = device_properties_init_with(p, &args, nodes); });
        return rc;
    };

    // An eMMC found through the mmc node is still read through the emmc node.
    put(mmc, "Device version:\tMMC\nDevice manufacture:\tM\n");
    device_properties m{};
    EXPECT_EQ(init(&m), -1);
    EXPECT_STREQ(m.bootdevice, "sdhci");
    EXPECT_EQ(m.storage_type, 2);
    EXPECT_EQ(args.num_samples, 9);  // 3600 x 180 MiB/s over 64 GiB = 9.9
    put(emmc, "Device version:\tE1\nDevice manufacture:\tEM\n");
    device_properties e{};
    EXPECT_EQ(init(&e), 0);
    EXPECT_STREQ(e.device_version, "E1");

    put(ufs, "Device version:\tABC123\nDevice manufacture:\tXYZ\n");
    device_properties p{};
    EXPECT_EQ(init(&p), 0);
    EXPECT_STREQ(p.serialno, "SER123");
    EXPECT_STREQ(p.build_description, "unknown");
    EXPECT_STREQ(p.uname, "Linux version 6.1\n");
    EXPECT_STREQ(p.bootdevice, "ufs");
    EXPECT_EQ(p.storage_type, 1);
    EXPECT_STREQ(p.device_version, "ABC123");
    EXPECT_STREQ(p.manufacture, "XYZ");
    EXPECT_EQ(args.num_samples, 10);
    // A known kind is not reclassified: this one is read through the emmc node.
    device_properties k{};
    k.storage_type = 2;
    EXPECT_EQ(init(&k), 0);
    EXPECT_STREQ(k.bootdevice, "ufs");
    EXPECT_STREQ(k.device_version, "E1");
    // The kernel version alone failing fails the init.
    nodes.proc_version = absent.c_str();
    device_properties v{};
    EXPECT_EQ(init(&v), -1);
    EXPECT_STREQ(v.uname, "unknown");
    EXPECT_STREQ(v.device_version, "ABC123");
}

}  // namespace
