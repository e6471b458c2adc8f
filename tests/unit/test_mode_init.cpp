/*
 * What ends a start before the loop is reached. How a start goes well is seen
 * from outside, by the system tests.
 */
#include "capture.h"
#include "failing_calls.h"
#include "temp_dir.h"
#include "tolva2/base/process_state.h"
#include "tolva2/files/settings.h"
#include "tolva2/start/mode_init.h"

#include <string>

namespace {

class init_receiver_test : public testing::Test {
  protected:
    void SetUp() override {
        progname = "tolva";
        home_dir = dir.path().c_str();
        dir.file("tolva.cfg", "AllowedAddresses=127.0.0.1\n"
                              "ListenAddress=127.0.0.8\n");
    }
    void TearDown() override { free_receiver_config(); }
    /* A start with that file, or the one at home, and so little memory. */
    static void start(ux_text cfgfile, int left) {
        ux_list lists[3];
        for (ux_list &list : lists) {
            ux_list_init(&list, nullptr);
        }
        /* One that goes well after all must neither detach nor stay. */
        trace_level foreground(0);
        alarm(10);
        failing_heap limit(left);
        _exit(init_receiver(std::move(cfgfile), "127.0.0.9", 0, 0, &lists[0],
                            &lists[1], &lists[2], -1, nullptr, nullptr, -1,
                            -1));
    }
    /* The allocations that a reading takes. */
    int reading() const {
        for (int left = 0; left < 1000; left++) {
            failing_heap limit(left);
            if (read_receiver_config(path.c_str(), home_dir, 0)) {
                return left;
            }
        }
        return -1;
    }
    void expect_end(const char *cfgfile, int left, const std::string &error) {
        EXPECT_EXIT(start(ux_copy(cfgfile), left), testing::ExitedWithCode(1),
                    "^tolva: " + error + "\n$");
    }

    temp_dir dir;
    std::string path = dir.path("tolva.cfg");
};

TEST_F(init_receiver_test, without_memory_for_the_path_there_is_no_start) {
    expect_end(nullptr, 0, "malloc\\(\\):: Cannot allocate memory");
}

TEST_F(init_receiver_test, without_memory_for_the_settings_there_is_no_start) {
    const int all = reading();
    for (int left : {0, 1, all / 2, all - 1}) {
        expect_end(path.c_str(), left, "error reading configfile " + path);
        /* Also for the usual file, which may be missing. */
        expect_end(nullptr, left + 1, "error reading configfile " + path);
    }
}

/* It would listen at every address instead. */
TEST_F(init_receiver_test, without_memory_for_the_address_there_is_no_start) {
    expect_end(path.c_str(), reading(), "malloc\\(\\): Cannot allocate memory");
}

} // namespace
