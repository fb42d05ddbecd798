// The results file: report sections, then a comma-separated table of the measured results.
// Always written whole to a temporary name and moved into place.
#include <sys/stat.h>
#include <unistd.h>

#include <cfloat>
#include <cstdio>
#include <cstdlib>

#include "flashaging/device_paths.h"
#include "flashaging/framework.h"
#include "flashaging/framework_internal.h"
#include "flashaging/log.h"
#include "flashaging/signal_hold.h"

namespace {

constexpr const char *kHeader =
    "version,description,test_id,result_id,units,minimum,maximum,value,stdev,num_samples,"
    "test_ran,duration_sec,status\n";

// A float column in a 16-byte buffer: at most 15 characters, longer texts are cut.
struct float_column {
    char text[16] = {};
};

float_column column_of(float v) {
    float_column c;
    snprintf(c.text, sizeof c.text, "%f", static_cast<double>(v));
    return c;
}

const char *status_word(uint8_t status) {
    switch (status) {
        case 1: return "PASS";
        case 2: return "Todo";
        default: return "Fail";
    }
}

void write_report_sections(FILE *out) {
    save_test_info(out);
    save_zarvo_healthinfo(out);
    save_memory_temperature(out);
    save_healthinfo(out);
    save_ufs_signal_record(out);
}

}  // namespace

namespace {

// Formats one table line into a heap text (asprintf's result: its length, or below 1 when
// it could not be formatted). For a thread that holds the caught signals.
int format_result_text(const test_result &r, char **line) {
    float_column maximum;  // empty: no upper limit
    if (r.maximum != FLT_MAX) maximum = column_of(r.maximum);
    float_column stdev;  // empty: a single sample has no spread
    if (r.num_samples > 1) stdev = column_of(r.stdev);
    *line = nullptr;
    return asprintf(line, "%s,%s,%d,%d.%u,%s,%f,%s,%f,%s,%u,%u,%f,%s\n", text_or_null(r.version),
                    text_or_null(r.description), r.test_id, r.test_id, r.result_id, text_or_null(r.units),
                    static_cast<double>(r.minimum), maximum.text, static_cast<double>(r.value), stdev.text,
                    r.num_samples, static_cast<unsigned>(r.test_ran), r.duration_sec, status_word(r.status));
}

// What became of one line: formatted (n >= 1) and written (put > 0) or not.
struct line_outcome {
    int n;
    size_t put;
};

}  // namespace

std::string format_result_line(const test_result &r) {
    char *line = nullptr;
    sigset_t saved;
    hold_caught_signals(&saved);
    const int n = format_result_text(r, &line);
    std::string text = n >= 1 ? std::string(line, static_cast<size_t>(n)) : std::string();
    if (n >= 0) free(line);
    release_caught_signals(&saved);
    return text;
}

// Every formatting, write and free of the table happens with the caught signals held: the
// abnormal-end handler may end the thread between two lines, never inside the C library's
// allocator or the stream. The messages go out after each hold.
int write_results_table(FILE *out, const test_result *results, uint64_t count) {
    int result = 0;

    sigset_t saved;
    hold_caught_signals(&saved);
    char *header = nullptr;
    line_outcome h {asprintf(&header, "%s", kHeader), 0};
    if (h.n >= 1) h.put = fwrite(header, 1, static_cast<size_t>(h.n), out);
    if (h.n >= 0) free(header);
    release_caught_signals(&saved);
    if (h.n < 1) {
        log_errno("Failed to write header in output file");
        result = -1;
    } else if (h.put == 0) {
        log_errno("Failed to write to results output file");
    }

    if (!results) return result;
    for (uint64_t i = 0; i < count; ++i) {
        const test_result &r = results[i];
        // Unmeasured records have no line; a value that is not a number still gets one.
        if (r.value <= 0.0f) continue;
        hold_caught_signals(&saved);
        char *line = nullptr;
        line_outcome l {format_result_text(r, &line), 0};
        if (l.n >= 1) l.put = fwrite(line, 1, static_cast<size_t>(l.n), out);
        if (l.n >= 0) free(line);
        release_caught_signals(&saved);
        if (l.n < 1) {
            log_errno("Failed to write entry in output file");
            result = -1;
        } else if (l.put == 0) {
            log_errno("Failed to write to results output file");
        }
    }
    return result;
}

int save_test_results_temp_at(const char *path, const test_result *results, uint64_t count) {
    FILE *out = held_fopen(path, "w");
    if (!out) {
        log_errno("Can't create output file.");
        return -1;
    }
    write_report_sections(out);
    if (!results) {
        held_fclose(out);
        return 0;
    }
    int result = write_results_table(out, results, count);
    held_fclose(out);
    return result;
}

void install_results_file(const char *temp_path, const char *final_path) {
    if (rename(temp_path, final_path) == -1) {
        log_errno("Failed to replace the result output file");
        return;
    }
    if (chmod(final_path, 0644) != 0)
        FLOG("save_test_results", "ERROR", "Failed to chmod %s\n", final_path);
    if (chown(final_path, 1000, 1000) != 0)
        FLOG("save_test_results", "ERROR", "Failed to chown %s\n", final_path);
}

int save_test_results_temp(const test_result *results, uint64_t count) {
    return save_test_results_temp_at(paths::kResultsTempFile, results, count);
}

void save_test_results(const test_result *results, uint64_t count) {
    // From the temporary file's creation to its rename the caught signals are held: a thread
    // ended meanwhile would leave its half-written temporary file (its stream never flushed)
    // beside the results file. A signal that comes meanwhile is taken once the file is in
    // place.
    sigset_t saved;
    hold_caught_signals(&saved);
    save_test_results_temp(results, count);
    install_results_file(paths::kResultsTempFile, paths::kResultsFile);
    release_caught_signals(&saved);
}
