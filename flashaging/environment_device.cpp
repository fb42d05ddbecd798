// Device properties: product and build properties, kernel version, boot device and the
// storage chip's version and maker, and the sample cap that depends on the storage kind.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "flashaging/device_paths.h"
#include "flashaging/environment.h"
#include "flashaging/environment_internal.h"
#include "flashaging/log.h"
#include "flashaging/signal_hold.h"
#include "platform/properties.h"

device_properties g_device_props{};

const device_node_paths kDeviceNodePaths = {
    paths::kProcVersion,
    paths::kDevinfoUfs,
    paths::kDevinfoMmc,
    paths::kDevinfoEmmc,
};

namespace {

constexpr size_t kStorageInfoRead = 512;
constexpr size_t kValueField = 64;

// Copies text into a field, cut to field_size - 1 characters and always terminated.
void copy_cut(char *field, size_t field_size, const char *text) {
    size_t n = 0;
    while (n + 1 < field_size && text[n] != '\0') ++n;
    memcpy(field, text, n);
    field[n] = '\0';
}

}  // namespace

void read_property(char *field, size_t field_size, const char *key) {
    char value[PROPERTY_VALUE_MAX] = {0};
    // The property door is a library whose locks this program cannot see.
    sigset_t saved;
    hold_caught_signals(&saved);
    property_get(key, value, "unknown");
    release_caught_signals(&saved);
    value[PROPERTY_VALUE_MAX - 1] = '\0';
    // prjversion and platform are smaller than a property value: the value is cut to the
    // field so it never runs into the fields behind it.
    copy_cut(field, field_size, value);
}

int read_kernel_version(char *uname, size_t size, const char *path) {
    int fd = open(path, O_RDONLY);
    if (fd < 0) {
        copy_cut(uname, size, "unknown");
        return -1;
    }
    // The whole field may be filled; a text as long as the field then has no terminator,
    // and whoever prints the field bounds it by the field's size.
    ssize_t n = read(fd, uname, size);
    int status = 0;
    if (n < 0) {
        copy_cut(uname, size, "unknown-ro");
        status = static_cast<int>(n);
    } else if (static_cast<size_t>(n) < size) {
        uname[n] = '\0';
    }
    close(fd);
    return status;
}

const char *choose_bootdevice(const device_node_paths &nodes) {
    if (access(nodes.devinfo_ufs, F_OK) == 0) return "ufs";
    if (access(nodes.devinfo_mmc, F_OK) == 0) return "sdhci";
    if (access(nodes.devinfo_emmc, F_OK) == 0) return "sdhci";
    return "SIMULATED bootdevice";
}

int classify_bootdevice(const char *bootdevice) {
    if (strstr(bootdevice, "ufs")) return 1;
    if (strstr(bootdevice, "sdhci") || strstr(bootdevice, "sdcc")) return 2;
    if (strstr(bootdevice, "SIMULATED bootdevice")) return 3;
    return 0;
}

bool extract_device_value(char *label, const char *end, char *field, char **after) {
    char *start = label;
    // The walk is bounded by the end of the text read, so a line without its end never
    // takes the walk past the data.
    for (char *p = label; p < end; ++p) {
        if (*p == '\t') {
            start = p + 1;
        } else if (*p == '\n') {
            *p = '\0';
            copy_cut(field, kValueField, start);
            if (after) *after = p + 1;
            return true;
        }
    }
    return false;
}

int storage_info_from_text(char *text, size_t len, char *device_version, char *manufacture,
                           const char *path) {
    const char *end = text + len;
    char *version = strstr(text, "Device version:");
    if (version == nullptr) {
        FLOG("get_storage_info", "ERROR", "Unable to find 'Device version' in %s\n", path);
        copy_cut(device_version, kValueField, "unknown");
        return -1;
    }
    // The maker is looked for behind the version's line; a version line without its end
    // leaves the search at the version label.
    char *from = version;
    extract_device_value(version, end, device_version, &from);
    char *maker = strstr(from, "Device manufacture:");
    if (maker == nullptr) {
        FLOG("get_storage_info", "ERROR", "Unable to find 'Device manufacture' in %s\n", path);
        copy_cut(manufacture, kValueField, "unknown");
        return -1;
    }
    // A maker line without its end leaves the field as it was; the status stays 0.
    extract_device_value(maker, end, manufacture, nullptr);
    return 0;
}

int storage_info_from_node(const char *path, char *device_version, char *manufacture) {
    int fd = open(path, O_RDONLY);
    if (fd < 0) {
        log_errno("Failed to open");
        FLOG_NP("get_storage_info", "WARN", "Failed to open file %s\n", path);
        return -1;
    }
    // One byte more than the read, so the text is always terminated for the searches.
    char *buf = static_cast<char *>(held_calloc(kStorageInfoRead + 1, 1));
    if (buf == nullptr) {
        FLOG("get_storage_info", "ERROR", "Failed to allocate memory! %d\n", 0);
        close(fd);
        return -1;
    }
    int status;
    ssize_t n = read(fd, buf, kStorageInfoRead);
    if (n < 1) {
        log_errno("Failed to read file");
        FLOG_NP("get_storage_info", "WARN", "Failed to read from %s\n", path);
        status = -1;
    } else {
        status = storage_info_from_text(buf, static_cast<size_t>(n), device_version, manufacture, path);
    }
    held_free(buf);
    close(fd);
    return status;
}

int num_samples_cap(int num_samples, int test_time, uint64_t total_file_size, int storage_type) {
    auto total = static_cast<int64_t>(total_file_size);
    if (num_samples < 1 || total < 1) return num_samples;
    int64_t rate;
    if (storage_type == 1) {
        rate = 199229440;  // 190 MiB per second
    } else if (storage_type == 2) {
        rate = 188743680;  // 180 MiB per second
    } else {
        return num_samples;
    }
    auto cap = static_cast<int32_t>(static_cast<int64_t>(test_time) * rate / total);
    if (cap < 1) return 0;
    return num_samples > cap ? cap : num_samples;
}

int device_properties_init_with(device_properties *props, test_args *args,
                                const device_node_paths &nodes) {
    read_property(props->serialno, sizeof props->serialno, "ro.serialno");
    read_property(props->model, sizeof props->model, "ro.product.model");
    read_property(props->build_description, sizeof props->build_description, "ro.build.description");

    int version_status = read_kernel_version(props->uname, sizeof props->uname, nodes.proc_version);

    read_property(props->prjversion, sizeof props->prjversion, "ro.product.prjversion");
    read_property(props->platform, sizeof props->platform, "ro.board.platform");

    copy_cut(props->bootdevice, sizeof props->bootdevice, choose_bootdevice(nodes));

    int storage_status = 0;
    if (props->storage_type == 0) props->storage_type = classify_bootdevice(props->bootdevice);
    const char *node = nullptr;
    switch (props->storage_type) {
    case 1:
        node = nodes.devinfo_ufs;
        break;
    case 2:
        // An eMMC found through the mmc node is still read through the emmc node.
        node = nodes.devinfo_emmc;
        break;
    default:
        // No boot device kind, or a simulated one: there is no chip to describe.
        storage_status = -1;
        break;
    }
    if (node != nullptr) {
        char path[128] = {0};
        copy_cut(path, sizeof path, node);
        storage_status = storage_info_from_node(path, props->device_version, props->manufacture);
    }

    if (args != nullptr && args->num_samples >= 1 && static_cast<int64_t>(args->total_file_size) >= 1) {
        if (props->storage_type == 0) props->storage_type = classify_bootdevice(props->bootdevice);
        args->num_samples =
            num_samples_cap(args->num_samples, args->test_time, args->total_file_size, props->storage_type);
    }
    return storage_status | version_status;
}

int device_properties_init() {
    return device_properties_init_with(&g_device_props, g_args, kDeviceNodePaths);
}
