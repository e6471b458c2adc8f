/* What becomes of the log's file when there is no room, here or in /tmp: a cut
 * still works or changes nothing, and no line is only half there. */
#include "descriptor_numbers.h"
#include "failing_calls.h"
#include "log_fixture.h"
#include "starve.h"

#include "tolva2/files/bounded_file.cpp" // NOLINT(bugprone-suspicious-include)

#include <filesystem>

namespace {

class full_disk_test : public logfile_test {
  protected:
    /* A file that the line "ttt…" of 76 bytes cuts, by 254 bytes and on to the
     * end of that line. */
    void fill_to_the_limit() {
        old = numbered_lines(50, 22); /* 1,100 bytes */
        write_file(path, old);
        open_log(1);
    }
    void expect_cut() {
        EXPECT_TRUE(log_write_line(text.c_str()));
        EXPECT_EQ(log(), old.substr(300) + ", tolva[00000]: " + text + "\n");
        expect_no_other_file();
    }
    void expect_no_cut() {
        EXPECT_FALSE(log_write_line(text.c_str()));
        EXPECT_EQ(read_file(path), old);
        expect_no_other_file();
    }
    void expect_no_other_file() {
        for (const auto &entry :
             std::filesystem::directory_iterator(dir.path())) {
            EXPECT_EQ(entry.path(), path);
        }
    }

    const std::string text = std::string(40, 't');
    std::string old;
};

/* The lowest number that a new descriptor gets. */
int next_descriptor() {
    int number = dup(0);
    close(number);
    return number;
}

/* Where the rest waits during a cut */

TEST_F(full_disk_test, the_rest_waits_beside_the_log) {
    fill_to_the_limit();
    failing_call full("tmpfile", ENOSPC);
    expect_cut();
}

TEST_F(full_disk_test, a_system_without_unnamed_files_has_unlinked_ones) {
    fill_to_the_limit();
    failing_call full("tmpfile", ENOSPC);
    for (int error : {EOPNOTSUPP, EISDIR, EINVAL}) {
        write_file(path, old);
        failing_call unknown("open", error);
        expect_cut();
    }
}

TEST_F(full_disk_test, where_none_can_be_made_a_temporary_file_does) {
    fill_to_the_limit();
    for (const char *call : {"realpath", "fdopen", "heap"}) {
        SCOPED_TRACE(call);
        write_file(path, old);
        int before = next_descriptor();
        {
            failing_call no_unnamed("open", EOPNOTSUPP);
            failing_call none(call, ENOMEM);
            expect_cut();
        }
        EXPECT_EQ(next_descriptor(), before);
    }
    write_file(path, old);
    failing_call no_unnamed("open", EOPNOTSUPP);
    failing_call no_named("mkostemp", EACCES);
    expect_cut();
    failing_call nowhere("tmpfile", ENOSPC);
    write_file(path, old);
    expect_no_cut();
}

TEST_F(full_disk_test, a_directory_of_others_is_no_hindrance) {
    fill_to_the_limit();
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0555), 0);
    EXPECT_EXIT(
        {
            become_nobody();
            _exit(log_write_line(text.c_str()) ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    EXPECT_EQ(log(), old.substr(300) + ", tolva[00000]: " + text + "\n");
}

TEST_F(full_disk_test, a_log_behind_a_link_is_cut_where_it_is) {
    temp_dir elsewhere;
    fill_to_the_limit();
    ASSERT_EQ(rename(path.c_str(), elsewhere.path("log").c_str()), 0);
    ASSERT_EQ(symlink(elsewhere.path("log").c_str(), path.c_str()), 0);
    failing_call full("tmpfile", ENOSPC);
    expect_cut();
    ux_file waiting = stream_beside(path.c_str());
    ASSERT_NE(waiting, nullptr);
    std::string seen = std::filesystem::read_symlink(
        "/proc/self/fd/" + std::to_string(fileno(waiting.get())));
    EXPECT_EQ(seen.rfind(elsewhere.path() + "/", 0), 0u) << seen;
}

TEST_F(full_disk_test, the_waiting_file_is_nobody_elses) {
    struct stat log_status;
    write_file(path, "x\n");
    ASSERT_EQ(stat(path.c_str(), &log_status), 0);
    mode_t mask = umask(0);
    for (int calls : {0, 1}) {
        failing_call unknown("open", EOPNOTSUPP, calls);
        ux_file stream = stream_beside(path.c_str());
        ASSERT_NE(stream, nullptr);
        struct stat status;
        ASSERT_EQ(fstat(fileno(stream.get()), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0600u);
        EXPECT_EQ(status.st_nlink, 0u);
        EXPECT_EQ(status.st_dev, log_status.st_dev);
        EXPECT_EQ(fcntl(fileno(stream.get()), F_GETFD), FD_CLOEXEC);
        expect_no_other_file();
    }
    umask(mask);
}

TEST_F(full_disk_test, a_log_without_a_slash_is_in_the_working_directory) {
    fill_to_the_limit();
    logfile_close();
    std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    ASSERT_TRUE(logfile_open("tolva.log", 1));
    failing_call full("tmpfile", ENOSPC);
    expect_cut();
    std::filesystem::current_path(before);
}

TEST_F(full_disk_test, the_file_stays_the_same_file) {
    fill_to_the_limit();
    struct stat before;
    struct stat after;
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    expect_cut();
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode, before.st_mode);
}

TEST_F(full_disk_test, a_rest_that_cannot_be_written_back_is_no_success) {
    fill_to_the_limit();
    EXPECT_TRUE(check_size(path.c_str(), 1024, 948));
    write_file(path, old);
    /* The first that is closed is the log when it has been read. */
    failing_call full("fclose", ENOSPC, 1);
    EXPECT_FALSE(check_size(path.c_str(), 1024, 948));
}

/* Torn lines */

TEST_F(full_disk_test, a_log_that_cannot_be_opened_again_is_not_cut) {
    fill_to_the_limit();
    failing_call no_writing("fopen", EACCES, 1, 1);
    expect_no_cut();
}

TEST_F(full_disk_test, a_log_that_cannot_be_opened_takes_no_line) {
    EXPECT_FALSE(append_bounded(dir.path("no/such.log").c_str(), 0, "x\n"));
}

TEST_F(full_disk_test, a_cut_takes_its_descriptors_from_the_reserve) {
    fill_to_the_limit();
    {
        descriptor_limit few(64);
        ASSERT_EQ(fill_reserve(), 0);
        std::vector<ux_fd> others = take_numbers_below(64);
        EXPECT_TRUE(log_write_line(text.c_str()));
    }
    EXPECT_FALSE(give_up_reserve());
    EXPECT_EQ(log(), old.substr(300) + ", tolva[00000]: " + text + "\n");
}

TEST_F(full_disk_test, a_cut_leaves_a_reserve_alone_that_it_does_not_need) {
    fill_to_the_limit();
    ASSERT_EQ(fill_reserve(), 0);
    expect_cut();
    EXPECT_TRUE(give_up_reserve());
}

TEST_F(full_disk_test, a_line_is_never_partly_there) {
    open_log(0);
    const std::string first = numbered_lines(50, 3);
    const std::string line = ", tolva[00000]: " + text + "\n";
    const size_t length = line.size() + 19;
    for (size_t room = 0; room < length; room++) {
        write_file(path, first);
        EXPECT_EXIT(
            {
                limit_files_to(first.size() + room);
                _exit(log_write_line(text.c_str()) ? 4 : 3);
            },
            testing::ExitedWithCode(3), "");
        EXPECT_EQ(read_file(path), first) << room;
    }
    EXPECT_TRUE(log_write_line(text.c_str()));
    EXPECT_EQ(log(), first + line);
}

TEST_F(full_disk_test, the_next_line_stands_on_its_own) {
    open_log(0);
    write_file(path, "first\n");
    EXPECT_EXIT(
        {
            rlimit before;
            getrlimit(RLIMIT_FSIZE, &before);
            limit_files_to(30);
            bool torn = log_write_line("one") || log_write_line("two");
            set_limit(RLIMIT_FSIZE, before.rlim_cur);
            _exit(!torn && log_write_line("three") ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
    EXPECT_EQ(log(), "first\n, tolva[00000]: three\n");
}

TEST_F(full_disk_test, the_first_line_of_a_file_is_taken_back_too) {
    open_log(1);
    EXPECT_EXIT(
        {
            limit_files_to(10);
            _exit(log_write_line("x") ? 4 : 3);
        },
        testing::ExitedWithCode(3), "");
    EXPECT_EQ(read_file(path), "");
}

TEST_F(full_disk_test, a_line_counts_when_the_file_is_closed) {
    open_log(0);
    write_file(path, "first\n");
    {
        failing_call quota("fclose", EDQUOT);
        EXPECT_FALSE(log_write_line("x"));
    }
    EXPECT_EQ(read_file(path), "first\n");
}

TEST_F(full_disk_test, what_others_have_written_is_not_taken_back) {
    struct row {
        size_t former;
        size_t length;
        size_t left;
    };
    /* The file has ten bytes. */
    for (const row &one :
         {row{6, 4, 6}, row{6, 5, 6}, row{9, 1000, 9}, row{0, 10, 0},
          row{6, 3, 10}, row{0, 9, 10}, row{10, 4, 10}, row{12, 4, 10}}) {
        write_file(path, "ten bytes\n");
        take_back(path.c_str(), static_cast<off_t>(one.former), one.length);
        EXPECT_EQ(read_file(path).size(), one.left)
            << one.former << " " << one.length;
    }
    ASSERT_EQ(unlink(path.c_str()), 0);
    take_back(path.c_str(), 0, 10);
    EXPECT_FALSE(file_exists(path));
}

} // namespace
