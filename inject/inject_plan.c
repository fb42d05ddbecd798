#include "inject/inject_plan.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

struct named {
    const char *name;
    int value;
};

static const struct named kinds[] = {
    {"alloc", INJECT_ALLOC}, {"open", INJECT_OPEN},     {"write", INJECT_WRITE}, {"read", INJECT_READ},
    {"fsync", INJECT_FSYNC}, {"statfs", INJECT_STATFS}, {"shell", INJECT_SHELL}, {"create", INJECT_CREATE},
    {"join", INJECT_JOIN},   {"lock", INJECT_LOCK},     {"wait", INJECT_WAIT},   {"log", INJECT_LOG},
};

static const struct named errors[] = {
    {"ENOMEM", ENOMEM}, {"EIO", EIO},       {"ENOSPC", ENOSPC}, {"EMFILE", EMFILE}, {"EAGAIN", EAGAIN},
    {"ENOENT", ENOENT}, {"EINVAL", EINVAL}, {"EACCES", EACCES}, {"ENFILE", ENFILE},
};

static const struct named signals[] = {
    {"TERM", SIGTERM}, {"USR1", SIGUSR1}, {"SEGV", SIGSEGV}, {"INT", SIGINT},   {"ABRT", SIGABRT},
    {"BUS", SIGBUS},   {"FPE", SIGFPE},   {"ILL", SIGILL},   {"TRAP", SIGTRAP}, {"ALRM", SIGALRM},
    {"USR2", SIGUSR2}, {"HUP", SIGHUP},   {"QUIT", SIGQUIT}, {"KILL", SIGKILL},
};

#define COUNT_OF(a) (sizeof(a) / sizeof((a)[0]))

/* The field of the text at *at up to the next ':' (or the end), copied into out; *at moves
 * behind the ':' (NULL after the last field). 0 when there is no field or it is too long. */
static int field(const char **at, char *out, size_t size) {
    if (*at == NULL) return 0;
    const char *end = strchr(*at, ':');
    const size_t len = end == NULL ? strlen(*at) : (size_t)(end - *at);
    if (len == 0 || len >= size) return 0;
    memcpy(out, *at, len);
    out[len] = '\0';
    *at = end == NULL ? NULL : end + 1;
    return 1;
}

static int lookup(const struct named *table, size_t n, const char *name, int *value) {
    for (size_t i = 0; i < n; ++i) {
        if (strcmp(table[i].name, name) == 0) {
            *value = table[i].value;
            return 1;
        }
    }
    return 0;
}

static const char *name_of(const struct named *table, size_t n, int value) {
    for (size_t i = 0; i < n; ++i)
        if (table[i].value == value) return table[i].name;
    return "?";
}

static int can_fail(enum inject_kind kind) {
    return kind != INJECT_LOCK && kind != INJECT_WAIT && kind != INJECT_LOG;
}

int parse_inject_plan(const char *text, struct inject_plan *plan) {
    if (text == NULL) return 0;
    const char *at = text;
    char kind[16], number[24], action[16], when[16];
    if (!field(&at, kind, sizeof kind) || !field(&at, number, sizeof number) || !field(&at, action, sizeof action))
        return 0;
    struct inject_plan s = {INJECT_NONE, 0, INJECT_COUNT, 0, 0, 0};
    int k = 0;
    if (strcmp(kind, "all") == 0)
        k = INJECT_NONE;
    else if (!lookup(kinds, COUNT_OF(kinds), kind, &k))
        return 0;
    s.kind = (enum inject_kind)k;
    if (number[0] < '0' || number[0] > '9') return 0;
    char *end = NULL;
    errno = 0;
    s.n = strtoull(number, &end, 10);
    if (*end != '\0' || errno != 0) return 0;
    const char *sig = strncmp(action, "SIG", 3) == 0 ? action + 3 : action;
    if (strcmp(action, "count") == 0) {
        s.action = INJECT_COUNT;
    } else if (strcmp(action, "trace") == 0 && s.kind != INJECT_NONE) {
        s.action = INJECT_TRACE;
    } else if (lookup(errors, COUNT_OF(errors), action, &s.error)) {
        if (!can_fail(s.kind)) return 0;
        s.action = INJECT_FAIL;
    } else if (lookup(signals, COUNT_OF(signals), sig, &s.signo)) {
        s.action = INJECT_SIGNAL;
    } else {
        return 0;
    }
    const int fault = s.action == INJECT_FAIL || s.action == INJECT_SIGNAL;
    if (fault && (s.n == 0 || s.kind == INJECT_NONE)) return 0;
    if (at != NULL) {
        if (s.action != INJECT_SIGNAL || !field(&at, when, sizeof when) || at != NULL) return 0;
        if (strcmp(when, "after") == 0)
            s.after = 1;
        else if (strcmp(when, "before") != 0)
            return 0;
    }
    *plan = s;
    return 1;
}

void format_inject_plan(const struct inject_plan *plan, char *out, size_t size) {
    const char *kind = inject_kind_name(plan->kind);
    const unsigned long long n = (unsigned long long)plan->n;
    switch (plan->action) {
    case INJECT_COUNT:
        snprintf(out, size, "%s:%llu:count", kind, n);
        break;
    case INJECT_TRACE:
        snprintf(out, size, "%s:%llu:trace", kind, n);
        break;
    case INJECT_FAIL:
        snprintf(out, size, "%s:%llu:%s", kind, n, name_of(errors, COUNT_OF(errors), plan->error));
        break;
    case INJECT_SIGNAL:
        snprintf(out, size, "%s:%llu:SIG%s:%s", kind, n, name_of(signals, COUNT_OF(signals), plan->signo),
                 plan->after ? "after" : "before");
        break;
    }
}

const char *inject_kind_name(enum inject_kind kind) {
    return kind == INJECT_NONE ? "all" : name_of(kinds, COUNT_OF(kinds), (int)kind);
}
