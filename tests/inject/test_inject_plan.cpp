// The fault injector's setting: what it accepts, what it refuses, and that it reads back
// what it prints.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "inject/inject_plan.h"

namespace {

std::string round_trip(const char *text) {
    inject_plan plan{};
    if (!parse_inject_plan(text, &plan)) return "refused";
    char out[128];
    format_inject_plan(&plan, out, sizeof out);
    return out;
}

TEST(InjectPlan, ReadsKindCallAndFault) {
    inject_plan s{};
    ASSERT_TRUE(parse_inject_plan("write:37:ENOSPC", &s));
    EXPECT_EQ(s.kind, INJECT_WRITE);
    EXPECT_EQ(s.n, 37u);
    EXPECT_EQ(s.action, INJECT_FAIL);
    EXPECT_EQ(s.error, ENOSPC);

    ASSERT_TRUE(parse_inject_plan("lock:12:SIGSEGV:after", &s));
    EXPECT_EQ(s.kind, INJECT_LOCK);
    EXPECT_EQ(s.action, INJECT_SIGNAL);
    EXPECT_EQ(s.signo, SIGSEGV);
    EXPECT_EQ(s.after, 1);

    ASSERT_TRUE(parse_inject_plan("log:3:USR1", &s));
    EXPECT_EQ(s.signo, SIGUSR1);
    EXPECT_EQ(s.after, 0);

    ASSERT_TRUE(parse_inject_plan("all:0:count", &s));
    EXPECT_EQ(s.kind, INJECT_NONE);
    EXPECT_EQ(s.action, INJECT_COUNT);
}

TEST(InjectPlan, PrintsWhatItReads) {
    EXPECT_EQ(round_trip("alloc:1:ENOMEM"), "alloc:1:ENOMEM");
    EXPECT_EQ(round_trip("open:5:EMFILE"), "open:5:EMFILE");
    EXPECT_EQ(round_trip("create:2:EAGAIN"), "create:2:EAGAIN");
    EXPECT_EQ(round_trip("wait:9:TERM"), "wait:9:SIGTERM:before");
    EXPECT_EQ(round_trip("join:4:SIGUSR1:before"), "join:4:SIGUSR1:before");
    EXPECT_EQ(round_trip("read:18446744073709551615:SIGTERM:after"), "read:18446744073709551615:SIGTERM:after");
    EXPECT_EQ(round_trip("alloc:0:trace"), "alloc:0:trace");
    EXPECT_EQ(round_trip("all:0:count"), "all:0:count");
}

TEST(InjectPlan, RefusesWhatIsNoFault) {
    for (const char *bad : {"", "alloc", "alloc:1", "alloc:x:ENOMEM", "alloc:-1:ENOMEM", "alloc:0:ENOMEM",
                            "malloc:1:ENOMEM", "alloc:1:ENOSUCH", "lock:1:EIO", "wait:1:ENOMEM", "log:2:EIO",
                            "alloc:1:ENOMEM:after", "write:3:SIGTERM:later", "write:3:SIGTERM:after:x",
                            "all:1:SIGTERM", "all:0:trace", "read:18446744073709551616:EIO", "write::EIO"}) {
        inject_plan s{};
        s.n = 77;
        EXPECT_FALSE(parse_inject_plan(bad, &s)) << bad;
        EXPECT_EQ(s.n, 77u) << bad;
    }
}

}  // namespace
