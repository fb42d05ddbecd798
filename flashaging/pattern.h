// Pattern file engine: the ten data patterns, the three file mixes, random writing of
// pattern files with direct I/O, and read-back verification.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

struct file_unit {
    uint8_t *buf;  // 4096 bytes of the pattern repeated; null until pattern_init
    int32_t len;   // 8 or 64
    const uint8_t *pattern;
};

struct file_desc {
    uint8_t pattern_id;
    int32_t file_num;               // files of this kind per pass
    std::atomic<int32_t> left_num;  // still to be created in this pass (readers peek at it)
    int32_t file_size;
    file_unit *unit;
};

struct file_group {
    int32_t desc_num;
    file_desc *descs;
};

struct file_case {
    uint32_t case_id;
    int32_t group_num;
    file_group *groups;
};

extern file_unit g_file_units[10];
extern file_case g_file_cases[3];
extern std::atomic<file_group *> g_cur_groups;
extern std::atomic<int32_t> g_cur_group_num;
extern std::atomic<int64_t> g_group_size;
extern uint32_t g_file_seq;       // under the writers' spin lock
extern bool g_pattern_inited;

void pattern_init(const char *dir, uint32_t case_id);
void init_file_group(uint32_t case_id);
void file_unit_free();
int system_rm_file(const char *path);

// kept: where the writer keeps its own pattern buffer while it writes (null: nowhere else).
int32_t random_finish_group_file(pthread_spinlock_t *lock, const char *dir, uint64_t *bytes_written,
                                 void **kept = nullptr);
file_desc *random_get_file_desc(int32_t r);
void fill_unit_buffer(file_desc *desc, uint8_t *buf, int32_t size);

// kept: two slots where the reader keeps its buffers while it reads (null: nowhere else).
int32_t read_disturb_file(void **kept = nullptr);
