/*
 * A temporary directory that vanishes with its test, and whole files in and
 * out of std::string, so that NUL bytes and line ends stay what they are.
 */
#ifndef TESTS_UNIT_TEMP_DIR_H
#define TESTS_UNIT_TEMP_DIR_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

/* Writes text as the whole file; the test fails when it cannot. */
inline void write_file(const std::string &path, const std::string &text) {
    FILE *stream = fopen(path.c_str(), "wb");
    ASSERT_NE(stream, nullptr) << path;
    EXPECT_EQ(fwrite(text.data(), 1, text.size(), stream), text.size());
    EXPECT_EQ(fclose(stream), 0);
}

/* The whole file; an absent one is "(no file)", which no test writes. */
inline std::string read_file(const std::string &path) {
    FILE *stream = fopen(path.c_str(), "rb");
    if (stream == nullptr) {
        return "(no file)";
    }
    std::string text;
    char block[8192];
    size_t got;
    while ((got = fread(block, 1, sizeof block, stream)) > 0) {
        text.append(block, got);
    }
    fclose(stream);
    return text;
}

inline bool file_exists(const std::string &path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

class temp_dir {
  public:
    temp_dir() {
        const char *base = getenv("TMPDIR");
        std::string name = base != nullptr && *base == '/' ? base : "/tmp";
        name += "/tolva-unit-XXXXXX";
        if (mkdtemp(name.data()) != nullptr) {
            directory = name;
        }
        EXPECT_FALSE(directory.empty()) << "no temporary directory: " << name;
    }
    ~temp_dir() {
        std::error_code ignored;
        if (!directory.empty()) {
            std::filesystem::remove_all(directory, ignored);
        }
    }
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;

    const std::string &path() const { return directory; }
    std::string path(const std::string &name) const {
        return directory + "/" + name;
    }
    /* Writes a file into the directory and returns its path. */
    std::string file(const std::string &name, const std::string &text) const {
        write_file(path(name), text);
        return path(name);
    }

  private:
    std::string directory;
};

#endif
