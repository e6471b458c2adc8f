/*
 * A table of a row of each type, with its storage, and a file to read it from
 * or write it to.
 */
#ifndef TESTS_UNIT_CONFIG_FIXTURE_H
#define TESTS_UNIT_CONFIG_FIXTURE_H

#include "temp_dir.h"
#include "unixtools/ux_configfile.h"

#include <string>

class config_test : public testing::Test {
  protected:
    void TearDown() override { umask(mask_before); }
    void forget() {
        name = nullptr;
        text = nullptr;
        port = -1;
    }
    int32_t read(const std::string &content, int32_t missing_ok = 0) {
        forget();
        write_file(path, content);
        return ux_readconfig(path.c_str(), table, 64, missing_ok);
    }
    /* The file after the values of now were put into content. */
    std::string rewritten(const std::string &content) {
        write_file(path, content);
        EXPECT_EQ(ux_rewriteconfig(path.c_str(), table, 64), 1);
        return read_file(path);
    }
    void set(int32_t new_port, const char *new_name, const char *new_text) {
        forget();
        port = new_port;
        name = ux_copy(new_name);
        text = ux_copy(new_text);
    }

    temp_dir dir;
    std::string path = dir.path("test.cfg");
    mode_t mask_before = umask(022);
    int32_t port = -1;
    int32_t port_default = 6003;
    ux_text name;
    ux_text name_default = ux_copy("none");
    ux_text text;
    ux_text text_default;
    ux_option table[6] = {
        {UX_OPTION_LITERAL, "# head"},
        {UX_OPTION_INTEGER, "port", {&port}, {&port_default}},
        {UX_OPTION_STRING, "name", {nullptr, &name}, {nullptr, &name_default}},
        {UX_OPTION_TEXT, "text", {nullptr, &text}, {nullptr, &text_default}},
        {},
        /* Behind the end of the table. */
        {UX_OPTION_INTEGER, "other", {&port}, {&port_default}},
    };
};

#endif
