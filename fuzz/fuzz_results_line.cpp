// The results table: every line ends in its line end, has its thirteen columns, the float
// columns cut to their 15 characters (the start of the full text), the empty columns where a
// record has no upper limit or one sample, and the right status word; the table has the
// header and one line per record with a value above 0.
#include <fuzzer/FuzzedDataProvider.h>

#include <cfloat>
#include <cmath>
#include <cstring>

#include "flashaging/framework_internal.h"
#include "fuzz_support.h"

namespace {

constexpr std::string_view kHeader =
    "version,description,test_id,result_id,units,minimum,maximum,value,stdev,num_samples,"
    "test_ran,duration_sec,status\n";

float any_float(FuzzedDataProvider &in) {
    switch (in.ConsumeIntegralInRange<int>(0, 3)) {
    case 0: return FLT_MAX;
    case 1: return in.ConsumeFloatingPoint<float>();
    case 2: return static_cast<float>(in.ConsumeIntegralInRange<int>(-100000, 100000)) / 8.0f;
    default: {
        uint32_t bits = in.ConsumeIntegral<uint32_t>();
        float f;
        memcpy(&f, &bits, sizeof f);
        return f;
    }
    }
}

struct record_texts {
    std::string version, description, units;
    bool null_version, null_description, null_units;
};

test_result any_record(FuzzedDataProvider &in, record_texts &t) {
    t.null_version = in.ConsumeBool();
    t.null_description = in.ConsumeBool();
    t.null_units = in.ConsumeBool();
    t.version = in.ConsumeRandomLengthString(64);
    t.description = in.ConsumeRandomLengthString(128);
    t.units = in.ConsumeRandomLengthString(16);
    test_result r{};
    r.version = t.null_version ? nullptr : t.version.c_str();
    r.description = t.null_description ? nullptr : t.description.c_str();
    r.units = t.null_units ? nullptr : t.units.c_str();
    r.test_id = in.ConsumeIntegral<int32_t>();
    r.result_id = in.ConsumeIntegral<uint32_t>();
    r.minimum = any_float(in);
    r.maximum = any_float(in);
    r.value = any_float(in);
    r.stdev = any_float(in);
    r.num_samples = in.ConsumeIntegralInRange<uint32_t>(0, 3) == 3 ? in.ConsumeIntegral<uint32_t>()
                                                                   : in.ConsumeIntegralInRange<uint32_t>(0, 2);
    r.test_ran = in.ConsumeIntegral<uint8_t>();
    r.duration_sec = static_cast<double>(any_float(in));  // a float time difference
    r.status = in.ConsumeIntegral<uint8_t>();
    return r;
}

std::string full_f(double v) {
    char buf[400];
    snprintf(buf, sizeof buf, "%f", v);
    return buf;
}

bool plain(const char *s) { return s == nullptr || strpbrk(s, ",\n") == nullptr; }

void check_line(const test_result &r, const std::string &line) {
    fz::check(!line.empty() && line.back() == '\n', "a line ends in its line end");
    if (!plain(r.version) || !plain(r.description) || !plain(r.units)) return;
    fz::check(line.find('\n') == line.size() - 1, "one line end only");
    std::vector<std::string_view> col;
    std::string_view rest(line.data(), line.size() - 1);
    for (;;) {
        size_t c = rest.find(',');
        col.push_back(rest.substr(0, c));
        if (c == std::string_view::npos) break;
        rest = rest.substr(c + 1);
    }
    fz::check(col.size() == 13, "thirteen columns");
    std::string id = std::to_string(r.test_id);
    fz::check(col[2] == id, "test_id column");
    fz::check(col[3] == id + "." + std::to_string(r.result_id), "result_id column");
    if (r.maximum == FLT_MAX) {
        fz::check(col[6].empty(), "no upper limit gives an empty maximum");
    } else {
        std::string full = full_f(r.maximum);
        fz::check(col[6] == std::string_view(full).substr(0, 15), "maximum cut to 15 characters");
    }
    if (r.num_samples > 1) {
        std::string full = full_f(r.stdev);
        fz::check(col[8] == std::string_view(full).substr(0, 15), "stdev cut to 15 characters");
    } else {
        fz::check(col[8].empty(), "one sample gives an empty stdev");
    }
    fz::check(col[5] == full_f(r.minimum) && col[7] == full_f(r.value), "minimum and value in full");
    fz::check(col[9] == std::to_string(r.num_samples) && col[10] == std::to_string(r.test_ran), "counts");
    const char *word = r.status == 1 ? "PASS" : r.status == 2 ? "Todo" : "Fail";
    fz::check(col[12] == word, "status word");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fz::quiet_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    size_t n = in.ConsumeIntegralInRange<size_t>(0, 2);
    std::vector<record_texts> texts(n);
    std::vector<test_result> records;
    for (size_t i = 0; i < n; ++i) records.push_back(any_record(in, texts[i]));

    std::string want(kHeader);
    for (const test_result &r : records) {
        std::string line = format_result_line(r);
        check_line(r, line);
        if (!(r.value <= 0.0f)) want += line;
    }

    fz::out_stream out;
    int rc = write_results_table(out.get(), records.empty() ? nullptr : records.data(), records.size());
    std::string got = out.text();
    fz::check(rc == 0, "a table of formattable records writes 0");
    if (records.empty()) {
        fz::check(got == kHeader, "no records: the header alone");
    } else {
        fz::check(got == want, "header and one line per measured record");
    }
    return 0;
}
