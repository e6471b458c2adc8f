/*
 * Catches what is written to a descriptor, however it gets there: by write(),
 * by a buffered stream or by a child. It goes to an unlinked file, so nothing
 * ever blocks.
 */
#ifndef TESTS_UNIT_CAPTURE_H
#define TESTS_UNIT_CAPTURE_H

#include "tolva2/base/trace.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>

class capture {
  public:
    explicit capture(int descriptor = STDOUT_FILENO) : caught(descriptor) {
        fflush(nullptr);
        file = tmpfile();
        saved = dup(caught);
        if (file == nullptr || saved < 0 || dup2(fileno(file), caught) < 0) {
            ADD_FAILURE() << "cannot catch descriptor " << caught;
        }
    }
    ~capture() {
        stop();
        if (file != nullptr) {
            fclose(file);
        }
    }
    capture(const capture &) = delete;
    capture &operator=(const capture &) = delete;

    /* What has arrived so far, without flushing any stream. */
    std::string so_far() const {
        std::string text;
        char block[4096];
        ssize_t got;
        while ((got = pread(fileno(file), block, sizeof block,
                            static_cast<off_t>(text.size()))) > 0) {
            text.append(block, static_cast<size_t>(got));
        }
        return text;
    }
    /* Puts the descriptor back; everything that was written to it. */
    std::string text() {
        stop();
        return so_far();
    }

  private:
    void stop() {
        if (saved >= 0) {
            fflush(nullptr);
            dup2(saved, caught);
            close(saved);
            saved = -1;
        }
    }

    int caught;
    int saved = -1;
    FILE *file = nullptr;
};

/* The trace level for as long as it lives. */
class trace_level {
  public:
    explicit trace_level(int32_t level) : before(debug_level) {
        debug_level = level;
    }
    ~trace_level() { debug_level = before; }
    trace_level(const trace_level &) = delete;
    trace_level &operator=(const trace_level &) = delete;

  private:
    int32_t before;
};

/* Runs body at a trace level; what it wrote to standard output. */
template <typename body_type>
std::string traced(int32_t level, body_type body) {
    capture output;
    trace_level at(level);
    body();
    return output.text();
}

#endif
