/*
 * An operator's log with message texts that show what they were given.
 */
#ifndef TESTS_UNIT_OPERATOR_LOG_H
#define TESTS_UNIT_OPERATOR_LOG_H

#include "temp_dir.h"

#include "tolva2/files/logfile.h"
#include "tolva2/files/msgdb.h"

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <unistd.h>
#include <vector>

/* Each message text names its number and shows which arguments it got. */
inline std::string message(int number,
                           std::initializer_list<std::string> args) {
    std::string text = "m" + std::to_string(number) + "!";
    size_t shown = 0;
    for (const std::string &argument : args) {
        text += " [" + argument + "]";
        shown++;
    }
    for (; shown < 3; shown++) {
        text += " [%s]";
    }
    return text;
}

/* A log file and a message database for as long as it lives. */
class operator_log {
  public:
    operator_log() {
        write_texts(835);
        EXPECT_EQ(msgdb_open(home.path("messages.dat").c_str()), 1);
        EXPECT_EQ(logfile_open(home.path("log").c_str(), 0), 1);
        log_into_file();
    }
    ~operator_log() {
        log_into_file(false);
        logfile_close();
        msgdb_close();
    }
    operator_log(const operator_log &) = delete;
    operator_log &operator=(const operator_log &) = delete;

    /* The texts logged so far, without date, time and process id. */
    std::vector<std::string> lines() const {
        std::vector<std::string> texts;
        std::string all =
            file_exists(home.path("log")) ? read_file(home.path("log")) : "";
        size_t start = 0;
        while (start < all.size()) {
            size_t end = all.find('\n', start);
            end = end == std::string::npos ? all.size() : end;
            std::string line = all.substr(start, end - start);
            size_t prefix = line.find("]: ");
            texts.push_back(
                prefix == std::string::npos ? line : line.substr(prefix + 3));
            start = end + 1;
        }
        return texts;
    }
    /* From now on there is a text for those too that not every database has. */
    void tell_more() const { write_texts(899); }
    void clear() const { unlink(home.path("log").c_str()); }
    const temp_dir &directory() const { return home; }

  private:
    void write_texts(int last) const {
        std::string texts;
        for (int number = 700; number <= last; number++) {
            texts += "m" + std::to_string(number) + "=" + message(number, {});
            texts += "\n";
        }
        texts += "m12=UPS #NAME at #PCT%s done\nm13=%s on %s\nm14=plain\n";
        home.file("messages.dat", texts);
    }
    temp_dir home;
};

using log_lines = std::vector<std::string>;

inline std::string system_line(int error) {
    return std::string("system: ") + strerror(error);
}

inline std::string error_line(int error) {
    return std::string("error: ") + strerror(error);
}

#endif
