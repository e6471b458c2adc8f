/*
 * Trace lines and error lines: what is written, with how many writes, at which
 * trace level, and what of it can end the process.
 */
#include "capture.h"
#include "temp_dir.h"
#include "tolva2/base/process_state.h"
#include "tolva2/base/trace.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace {

/* Standard output as a socket that keeps every write apart. */
class writes {
  public:
    writes() {
        fflush(stdout);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
        saved = dup(STDOUT_FILENO);
        EXPECT_GE(dup2(ends[1], STDOUT_FILENO), 0);
    }
    ~writes() {
        stop();
        close(ends[0]);
    }
    writes(const writes &) = delete;
    writes &operator=(const writes &) = delete;
    /* One text for each write. */
    std::vector<std::string> all() {
        stop();
        std::vector<std::string> texts;
        char text[8192];
        ssize_t length;
        while ((length = recv(ends[0], text, sizeof text, 0)) > 0) {
            texts.emplace_back(text, static_cast<size_t>(length));
        }
        return texts;
    }

  private:
    void stop() {
        if (saved >= 0) {
            dup2(saved, STDOUT_FILENO);
            close(saved);
            close(ends[1]);
            saved = -1;
        }
    }

    int ends[2];
    int saved;
};

using texts = std::vector<std::string>;

TEST(trace_printf_test, formats_one_text_with_one_write) {
    writes output;
    trace_printf("TRACEIN: %s\n", "some_function");
    trace_printf("%d %s %05u\nsecond line\n", -1, "\xe4", 42u);
    trace_printf("no line end");
    EXPECT_EQ(output.all(),
              texts({"TRACEIN: some_function\n", "-1 \xe4 00042\nsecond line\n",
                     "no line end"}));
}

TEST(trace_printf_test, cuts_a_text_to_1023_characters) {
    for (size_t length : {1022u, 1023u, 1024u, 1025u, 4096u, 100000u}) {
        std::string text(length, 'x');
        writes output;
        trace_printf("%s", text.c_str());
        EXPECT_EQ(output.all(), texts({text.substr(0, 1023)})) << length;
    }
    writes output;
    trace_printf("%s\n", std::string(1023, 'x').c_str());
    EXPECT_EQ(output.all(), texts({std::string(1023, 'x')}));
}

TEST(trace_printf_test, nothing_writes_nothing) {
    /* Not literals, which the compiler would complain about. */
    const char *volatile none = nullptr;
    const char *volatile empty = "";
    const char *volatile text = "%s";
    writes output;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    trace_printf(none);
    trace_printf(empty);
    {
        trace_level at(1);
        debug_printf(none);
        debug_printf(empty);
    }
#pragma GCC diagnostic pop
    trace_printf("%s", "");
    EXPECT_EQ(output.all(), texts{});
    EXPECT_STREQ(text, "%s");
}

TEST(trace_printf_test, goes_past_the_buffered_stream) {
    capture output;
    fputs("buffered ", stdout);
    trace_printf("traced ");
    EXPECT_EQ(output.so_far(), "traced ");
    EXPECT_EQ(output.text(), "traced buffered ");
}

TEST(trace_printf_test, does_not_look_at_the_trace_level) {
    for (int32_t level : {-1, 0, 10}) {
        EXPECT_EQ(traced(level, [] { trace_printf("x"); }), "x");
    }
}

TEST(trace_printf_test, keeps_errno_even_when_nobody_reads) {
    writes output;
    errno = ETIMEDOUT;
    trace_printf("x");
    EXPECT_EQ(errno, ETIMEDOUT);
    int saved = dup(STDOUT_FILENO);
    int full = open("/dev/full", O_WRONLY);
    dup2(full, STDOUT_FILENO);
    close(full);
    errno = ETIMEDOUT;
    trace_printf("x");
    int after = errno;
    dup2(saved, STDOUT_FILENO);
    close(saved);
    EXPECT_EQ(after, ETIMEDOUT);
}

void traced_function() {
    trace_in();
    debug_printf("DEBUG: number = %d\n", 7);
    trace_out();
}

TEST(trace_level_test, decides_what_is_traced) {
    const std::string in = "TRACEIN: traced_function\n";
    const std::string detail = "DEBUG: number = 7\n";
    const std::string out = "TRACEOUT: traced_function\n";
    const struct {
        int32_t level;
        std::string expected;
    } cases[] = {{-1, ""},
                 {0, ""},
                 {INT32_MIN, ""},
                 {1, detail},
                 {5, detail},
                 {6, in + detail},
                 {9, in + detail},
                 {10, in + detail + out},
                 {INT32_MAX, in + detail + out}};
    for (const auto &c : cases) {
        EXPECT_EQ(traced(c.level, traced_function), c.expected) << c.level;
    }
}

TEST(trace_level_test, starts_at_minus_1) { EXPECT_EQ(debug_level, -1); }

TEST(trace_level_test, every_line_is_a_write_of_its_own) {
    writes output;
    {
        trace_level at(10);
        traced_function();
    }
    EXPECT_EQ(output.all(),
              texts({"TRACEIN: traced_function\n", "DEBUG: number = 7\n",
                     "TRACEOUT: traced_function\n"}));
}

TEST(process_state_test, starts_with_nothing_settled) {
    EXPECT_EQ(progname, nullptr);
    EXPECT_EQ(home_dir, nullptr);
    EXPECT_EQ(daemonized, 0);
}

/* Errors */

FILE *hook_stream;
std::string hook_text;
int32_t hook_calls;

int note_error(FILE *stream, const char *format, va_list args) {
    char text[256];
    hook_calls++;
    hook_stream = stream;
    vsnprintf(text, sizeof text, format, args);
    hook_text = text;
    return 42;
}

int say_zero(FILE *, const char *, va_list) { return 0; }

class error_printf_test : public testing::Test {
  protected:
    void SetUp() override {
        hook_stream = nullptr;
        hook_text.clear();
        hook_calls = 0;
    }
    void TearDown() override { error_output_hook = vfprintf; }
};

TEST_F(error_printf_test, prints_to_its_stream_and_returns) {
    capture errors(STDERR_FILENO);
    capture output;
    EXPECT_EQ(error_printf(stderr, 0, "%s: %s\n", "tolva", "a warning"), 17);
    EXPECT_EQ(errors.text(), "tolva: a warning\n");
    EXPECT_EQ(error_printf(stdout, 0, "to %s", "stdout"), 9);
    EXPECT_EQ(output.text(), "to stdout");
}

TEST_F(error_printf_test, does_not_cut_its_text) {
    const std::string text(10000, 'x');
    capture errors(STDERR_FILENO);
    EXPECT_EQ(error_printf(stderr, 0, "%s", text.c_str()), 10000);
    EXPECT_EQ(errors.text(), text);
}

TEST_F(error_printf_test, ends_the_process_with_the_code_less_1) {
    EXPECT_EXIT(error_printf(stderr, 2, "%s: fatal\n", "tolva"),
                testing::ExitedWithCode(1), "^tolva: fatal\n$");
    EXPECT_EXIT(error_printf(stderr, 1, "%s: done\n", "tolva"),
                testing::ExitedWithCode(0), "^tolva: done\n$");
    EXPECT_EXIT(error_printf(stderr, 4, "x\n"), testing::ExitedWithCode(3),
                "^x\n$");
}

TEST_F(error_printf_test, ends_the_process_in_order) {
    EXPECT_EXIT(
        {
            atexit([] { fputs("handlers run\n", stderr); });
            error_printf(stderr, ERROR_EXIT, "fatal\n");
        },
        testing::ExitedWithCode(1), "^fatal\nhandlers run\n$");
}

TEST_F(error_printf_test, hands_everything_to_the_hook) {
    error_output_hook = note_error;
    capture errors(STDERR_FILENO);
    EXPECT_EQ(error_printf(stdout, ERROR_CONTINUE, "%s: %d", "tolva", 5), 42);
    EXPECT_EQ(errors.text(), "");
    EXPECT_EQ(hook_calls, 1);
    EXPECT_EQ(hook_stream, stdout);
    EXPECT_EQ(hook_text, "tolva: 5");
    error_output_hook = say_zero;
    EXPECT_EQ(error_printf(stderr, 0, "x"), 0);
}

TEST_F(error_printf_test, the_hook_does_not_keep_the_process) {
    EXPECT_EXIT(
        {
            error_output_hook = [](FILE *, const char *, va_list) -> int {
                fputs("hook\n", stderr);
                return 0;
            };
            error_printf(stderr, 2, "text\n");
        },
        testing::ExitedWithCode(1), "^hook\n$");
}

TEST_F(error_printf_test, without_a_hook_the_text_is_dropped) {
    error_output_hook = nullptr;
    capture errors(STDERR_FILENO);
    EXPECT_EQ(error_printf(stderr, 0, "x"), 1);
    EXPECT_EQ(errors.text(), "");
    EXPECT_EXIT(error_printf(stderr, 2, "x"), testing::ExitedWithCode(1), "^$");
}

/* The debug file */

class debug_file_test : public testing::Test {
  protected:
    void SetUp() override {
        before = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_EQ(chdir(dir.path().c_str()), 0);
        mask = umask(0);
    }
    void TearDown() override {
        close_debug_file();
        umask(mask);
        EXPECT_EQ(fchdir(before), 0);
        close(before);
    }
    /* The descriptor that is open on a file of the directory, or -1. */
    int descriptor_of(const std::string &name) const {
        struct stat file;
        if (stat(dir.path(name).c_str(), &file) != 0) {
            return -1;
        }
        for (int fd = 3; fd < 256; fd++) {
            struct stat other;
            if (fstat(fd, &other) == 0 && other.st_ino == file.st_ino &&
                other.st_dev == file.st_dev) {
                return fd;
            }
        }
        return -1;
    }

    temp_dir dir;
    int before;
    mode_t mask;
};

TEST_F(debug_file_test, has_a_name_of_its_own) {
    EXPECT_EQ(open_debug_file(nullptr), 1);
    EXPECT_GE(descriptor_of("upsdebug.out"), 0);
    struct stat status;
    ASSERT_EQ(stat(dir.path("upsdebug.out").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, static_cast<mode_t>(0664));
    close_debug_file();
    EXPECT_EQ(descriptor_of("upsdebug.out"), -1);
}

TEST_F(debug_file_test, is_read_and_appended) {
    write_file(dir.path("debug"), "old\n");
    EXPECT_EQ(open_debug_file("debug"), 1);
    int fd = descriptor_of("debug");
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & (O_ACCMODE | O_APPEND), O_RDWR | O_APPEND);
    EXPECT_EQ(write(fd, "new\n", 4), 4);
    EXPECT_EQ(read_file(dir.path("debug")), "old\nnew\n");
}

TEST_F(debug_file_test, an_open_one_is_kept) {
    EXPECT_EQ(open_debug_file("first"), 1);
    EXPECT_EQ(open_debug_file("second"), 1);
    EXPECT_EQ(open_debug_file("no/such/dir"), 1);
    EXPECT_GE(descriptor_of("first"), 0);
    EXPECT_FALSE(file_exists(dir.path("second")));
    close_debug_file();
    close_debug_file();
    EXPECT_EQ(open_debug_file("second"), 1);
    EXPECT_GE(descriptor_of("second"), 0);
    EXPECT_EQ(descriptor_of("first"), -1);
}

TEST_F(debug_file_test, one_that_cannot_be_opened_gives_0) {
    EXPECT_EQ(open_debug_file("no/such/dir"), 0);
    EXPECT_EQ(open_debug_file(dir.path().c_str()), 0);
    EXPECT_EQ(open_debug_file("good"), 1);
}

} // namespace
