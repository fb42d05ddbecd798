// The argument elements: the first input byte says whether the daemon speaks version 2.0,
// the rest are the elements, one a line. Properties: an element sets at most one setting;
// the version-2.0 settings stay 0 without that version and nothing else depends on it;
// parsing the elements twice in a row gives what parsing them once gives (a later element
// overrides an earlier one); the settings without an option are never touched.
#include <cstring>
#include <memory>

#include "flashaging/environment_internal.h"
#include "fuzz_support.h"

namespace {

constexpr size_t kMaxElements = 4;  // the daemon hands over a few elements

// Every field but test_over, as bit patterns (floats compared bit for bit, NaN included).
std::vector<uint64_t> fields(const test_args &a) {
    auto f = [](float x) {
        uint32_t b;
        memcpy(&b, &x, sizeof b);
        return static_cast<uint64_t>(b);
    };
    auto i = [](int x) { return static_cast<uint64_t>(static_cast<uint32_t>(x)); };
    return {i(a.test_time), i(a.test_num), i(a.num_samples), i(a.spike), i(a.full_filling_times),
            i(a.reserved_space), i(a.test_policy), i(a.fix_freq), i(a.force_erase),
            f(a.seq_w_large_threshold), f(a.seq_r_large_threshold), f(a.seq_r_small_threshold),
            f(a.ran_w_large_threshold), f(a.ran_w_small_threshold), f(a.ran_r_large_threshold),
            f(a.ran_r_small_threshold), f(a.mix_rw_threshold), a.total_file_size,
            f(a.seq_small_task_size), f(a.seq_large_w_task_size), f(a.seq_large_r_task_size),
            f(a.ran_r_large_task_size), f(a.ran_r_small_task_size), f(a.ran_w_large_task_size),
            f(a.ran_w_small_task_size), i(a.max_test_voltage), i(a.min_test_voltage),
            i(a.emmc_working_voltage), i(a.voltage_step), i(a.voltage_chg_step),
            i(a.voltage_chg_wait_stime), i(a.low_vol_stime), i(a.skip_err_state), i(a.aging_version)};
}
constexpr size_t kV2Fields[] = {4, 5, 6, 7};  // full_filling_times .. fix_freq in fields()

// A record as set-up leaves it before the parse: zero-filled, both default stages. The
// work directory does not exist, so total_file_size is the all-ones failure value every time.
const test_args &default_record() {
    static const test_args *record = [] {
        auto *a = new test_args{};
        args_defaults_stage1(a);
        args_defaults_stage2(a, "/nonexistent/format_unclear");
        return a;
    }();
    return *record;
}

std::unique_ptr<test_args> defaults() {
    auto a = std::make_unique<test_args>();
    // The record holds plain numbers and one lock-free word; a byte copy is what set-up's
    // default stages would leave.
    memcpy(static_cast<void *>(a.get()), &default_record(), sizeof(test_args));
    return a;
}

std::vector<uint64_t> parsed(const std::vector<std::string> &elems, size_t repeat, bool v2) {
    std::vector<char *> argv;
    argv.push_back(const_cast<char *>("flashaging"));
    for (size_t r = 0; r < repeat; ++r)
        for (const std::string &e : elems) argv.push_back(const_cast<char *>(e.c_str()));
    argv.push_back(nullptr);
    auto a = defaults();
    parse_test_args(a.get(), static_cast<int>(argv.size() - 1), argv.data(), v2);
    fz::check(a->test_over.load() == 0, "test_over untouched");
    return fields(*a);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fz::quiet_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return -1;
    bool v2 = (data[0] & 1) != 0;
    std::vector<std::string> elems;
    std::string_view rest(reinterpret_cast<const char *>(data + 1), size - 1);
    while (!rest.empty() && elems.size() < kMaxElements) {
        size_t nl = rest.find('\n');
        std::string_view e = rest.substr(0, nl);
        elems.emplace_back(e.substr(0, e.find('\0')));
        rest = nl == std::string_view::npos ? std::string_view() : rest.substr(nl + 1);
    }

    const std::vector<uint64_t> base = fields(*defaults());
    const std::vector<uint64_t> once = parsed(elems, 1, v2);
    const std::vector<uint64_t> other = parsed(elems, 1, !v2);
    const std::vector<uint64_t> &plain = v2 ? other : once;
    const std::vector<uint64_t> &with_v2 = v2 ? once : other;

    fz::check(parsed(elems, 2, v2) == once, "a repeated vector parses as the vector once");
    for (size_t k : kV2Fields) fz::check(plain[k] == 0, "version-2.0 settings stay 0 without 2.0");
    for (size_t k = 0; k < base.size(); ++k) {
        bool v2_field = k >= 4 && k <= 7;
        if (!v2_field) fz::check(plain[k] == with_v2[k], "only the version-2.0 settings depend on 2.0");
    }
    const size_t kVoltageStep = 28, kAgingVersion = 33;
    fz::check(once[kVoltageStep] == base[kVoltageStep] && once[kAgingVersion] == base[kAgingVersion],
              "settings without an option untouched");
    for (const std::string &e : elems) {
        std::vector<uint64_t> one = parsed({e}, 1, v2);
        size_t changed = 0;
        for (size_t k = 0; k < base.size(); ++k) changed += one[k] != base[k];
        fz::check(changed <= 1, "one element sets one setting at most");
    }
    return 0;
}
