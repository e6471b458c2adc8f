/*
 * A log in a directory of its own, and the lines in it or on standard output
 * without their dates and times, so that they can be compared.
 */
#ifndef TESTS_UNIT_LOG_FIXTURE_H
#define TESTS_UNIT_LOG_FIXTURE_H

#include "capture.h"
#include "temp_dir.h"
#include "tolva2/base/process_state.h"
#include "tolva2/files/logfile.h"

#include <cstdint>
#include <ctime>
#include <string>

inline std::string stamp(time_t t) {
    char text[64];
    tm local;
    localtime_r(&t, &local);
    strftime(text, sizeof text, "%m/%d/%Y,%H:%M:%S", &local);
    return text;
}

/* The lines without their dates and times, which lie between two moments. */
inline std::string without_stamps(const std::string &lines, time_t from,
                                  time_t to) {
    std::string rest;
    size_t start = 0;
    while (start < lines.size()) {
        size_t end = lines.find('\n', start);
        end = end == std::string::npos ? lines.size() : end + 1;
        std::string line = lines.substr(start, end - start);
        for (time_t t = from; t <= to; t++) {
            if (line.rfind(stamp(t), 0) == 0) {
                line = line.substr(stamp(t).size());
                break;
            }
        }
        rest += line;
        start = end;
    }
    return rest;
}

inline std::string numbered_lines(size_t length, size_t count) {
    std::string lines;
    for (size_t i = 0; i < count; i++) {
        std::string line = "line " + std::to_string(i) + " ";
        line.resize(length - 1, '.');
        lines += line + "\n";
    }
    return lines;
}

class logfile_test : public testing::Test {
  protected:
    void TearDown() override {
        logfile_close();
        log_into_file(false);
        log_as(0);
        daemonized = 0;
    }
    void open_log(int32_t size_kib) {
        ASSERT_TRUE(logfile_open(path.c_str(), size_kib));
        log_into_file();
    }
    /* What standard output gets from body, without dates and times. */
    template <typename body_type> std::string shown(body_type body) {
        time_t before = time(nullptr);
        std::string output = traced(-1, body);
        return without_stamps(output, before, time(nullptr));
    }
    /* What log_write_line makes of text. */
    std::string line_of(const std::string &text) {
        return shown([&] { EXPECT_TRUE(log_write_line(text.c_str())); });
    }
    std::string log() const {
        return without_stamps(read_file(path), started, time(nullptr));
    }

    time_t started = time(nullptr);
    temp_dir dir;
    std::string path = dir.path("tolva.log");
};

#endif
