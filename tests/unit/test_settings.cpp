/*
 * The listener's settings: each key with its field and default, what a file
 * makes of them, and what is left of them when it cannot be read.
 */
#include "capture.h"
#include "failing_calls.h"
#include "temp_dir.h"
#include "tolva2/files/settings.h"

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

const char *const HEADER = "#\n# TOLVA Configuration (v-3.00.0-1)\n#\n";

class settings_test : public testing::Test {
  protected:
    void TearDown() override {
        free_receiver_config();
        umask(mask_before);
    }
    /* The settings of a file of that content, with /home/tolva as home. */
    receiver_params *read(const std::string &content) {
        write_file(path, content);
        return read_receiver_config(path.c_str(), "/home/tolva", 0);
    }

    temp_dir dir;
    std::string path = dir.path("tolva.cfg");
    mode_t mask_before = umask(022);
};

struct integer_key {
    const char *key;
    int32_t receiver_params::*field;
    int32_t default_value;
};

struct text_key {
    const char *key;
    ux_text receiver_params::*field;
    const char *default_value; /* may be null */
};

const std::vector<integer_key> INTEGER_KEYS = {
    {"ListenPort", &receiver_params::listenport, 6003},
    {"ListenTimeout", &receiver_params::listen_timeout, 10},
    {"AlivePort", &receiver_params::kesdalport, 5769},
    {"AliveInterval", &receiver_params::alive_interval, 1800},
    {"AliveRetries", &receiver_params::alive_retries, 0},
    {"LogfileSize", &receiver_params::logfile_size, 1024},
    {"RedundancyLevel", &receiver_params::redundancy_level, 0},
};

const std::vector<text_key> TEXT_KEYS = {
    {"ListenAddress", &receiver_params::listen_address, "0.0.0.0"},
    {"ListenUDP", &receiver_params::listen_udp, "true"},
    {"AllowedAddresses", &receiver_params::allowed_addresses, nullptr},
    {"AliveAddresses", &receiver_params::alive_addresses, nullptr},
    {"AliveEnabled", &receiver_params::alive_enabled, "false"},
    {"LogfileEnabled", &receiver_params::logfile_enabled, "true"},
    {"RedundancyEnabled", &receiver_params::redundancy_enabled, "false"},
    {"RedundancyBatchSuppress", &receiver_params::redundancy_batch_suppress,
     "false"},
    {"RedundancyAddresses", &receiver_params::redundancy_addresses, nullptr},
};

/* Their defaults stand in the home directory. */
const std::vector<text_key> FILE_KEYS = {
    {"LogfileName", &receiver_params::logfile_name, "tolva.log"},
    {"ShutdownProg", &receiver_params::shutdown_prog, "tolva_shutdown.sh"},
    {"AliveProg", &receiver_params::alive_prog, "tolva_notalive.sh"},
    {"ExecProg", &receiver_params::exec_prog, "tolva_execute.sh"},
    {"MsgProg", &receiver_params::msg_prog, "tolva_message.sh"},
    {"MailProg", &receiver_params::mail_prog, "tolva_mail.sh"},
    {"MsgDatName", &receiver_params::msgfile_name, "messages.dat"},
    {"RedundancyBatchFile", &receiver_params::redundancy_batch_file,
     "ShutdownSuppressed.sh"},
};

void expect_defaults(const receiver_params *p, const std::string &home) {
    ASSERT_NE(p, nullptr);
    for (const integer_key &k : INTEGER_KEYS) {
        EXPECT_EQ(p->*k.field, k.default_value) << k.key;
    }
    for (const text_key &k : TEXT_KEYS) {
        EXPECT_STREQ((p->*k.field).get(), k.default_value) << k.key;
    }
    for (const text_key &k : FILE_KEYS) {
        EXPECT_EQ((p->*k.field).get(), home + k.default_value) << k.key;
    }
}

TEST_F(settings_test, an_absent_file_gives_every_default) {
    const receiver_params *p =
        read_receiver_config(dir.path("absent.cfg").c_str(), "/home/tolva", 1);
    expect_defaults(p, "/home/tolva/");
}

TEST_F(settings_test,
       an_empty_file_gives_every_default_when_it_may_be_missing) {
    write_file(path, "");
    expect_defaults(read_receiver_config(path.c_str(), "/home/tolva", 1),
                    "/home/tolva/");
}

TEST_F(settings_test, an_absent_or_empty_file_is_an_error_when_it_was_named) {
    EXPECT_EQ(read_receiver_config(dir.path("absent.cfg").c_str(), "/h", 0),
              nullptr);
    EXPECT_EQ(read(""), nullptr);
    EXPECT_EQ(read_receiver_config(dir.path().c_str(), "/h", 0), nullptr);
}

TEST_F(settings_test, keys_without_value_take_their_defaults) {
    std::string content;
    for (const integer_key &k : INTEGER_KEYS) {
        content += std::string(k.key) + "=\n";
    }
    for (const auto &keys : {TEXT_KEYS, FILE_KEYS}) {
        for (const text_key &k : keys) {
            content += std::string(k.key) + "=  # nothing\n";
        }
    }
    expect_defaults(read(content), "/home/tolva/");
}

TEST_F(settings_test, the_two_records_are_known_to_everybody) {
    receiver_params *p = read("ListenPort=7\nListenAddress=127.0.0.9\n");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(rp, p);
    ASSERT_NE(rp_defaults, nullptr);
    EXPECT_NE(rp_defaults, p);
    EXPECT_EQ(p->listenport, 7);
    EXPECT_STREQ(p->listen_address.get(), "127.0.0.9");
    expect_defaults(rp_defaults, "/home/tolva/");
    /* A default is copied, never shared. */
    EXPECT_NE(p->shutdown_prog, rp_defaults->shutdown_prog);
    EXPECT_NE(p->listen_udp, rp_defaults->listen_udp);
}

TEST_F(settings_test, every_key_sets_its_own_field) {
    for (const integer_key &k : INTEGER_KEYS) {
        const receiver_params *p = read(std::string(k.key) + " = 4711\n");
        ASSERT_NE(p, nullptr);
        for (const integer_key &other : INTEGER_KEYS) {
            EXPECT_EQ(p->*other.field,
                      other.key == k.key ? 4711 : other.default_value)
                << other.key << " after " << k.key;
        }
    }
    std::vector<text_key> keys = TEXT_KEYS;
    keys.insert(keys.end(), FILE_KEYS.begin(), FILE_KEYS.end());
    for (const text_key &k : keys) {
        const receiver_params *p = read(std::string(k.key) + "=some text\n");
        ASSERT_NE(p, nullptr);
        for (const text_key &other : keys) {
            if (other.key == k.key) {
                EXPECT_STREQ((p->*other.field).get(), "some text") << k.key;
            } else {
                EXPECT_STRNE((p->*other.field).get(), "some text")
                    << other.key << " after " << k.key;
            }
        }
    }
}

TEST_F(settings_test, keys_are_known_by_their_case) {
    expect_defaults(read("listenport=7\nLISTENPORT=8\nlistenPort=9\n"),
                    "/home/tolva/");
}

TEST_F(settings_test, unknown_keys_and_malformed_lines_are_ignored) {
    const receiver_params *p =
        read("Unknown=1\njunk\n=3\nx=4\nListenPort\nAliveRetries=3\n");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->alive_retries, 3);
    EXPECT_EQ(p->listenport, 6003);
}

TEST_F(settings_test, integers_are_read_by_their_decimal_prefix) {
    const struct {
        const char *text;
        int32_t expected;
    } cases[] = {{"abc", 0},           {"0", 0},
                 {"7abc", 7},          {"-1", -1},
                 {"1000000", 1000000}, {"4294973299", INT32_MAX},
                 {"", 6003},           {"  ", 6003}};
    for (const auto &c : cases) {
        const receiver_params *p =
            read(std::string("ListenPort=") + c.text + "\n");
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->listenport, c.expected) << c.text;
    }
}

TEST_F(settings_test, there_is_no_range_check) {
    const receiver_params *p =
        read("AliveInterval=1\nLogfileSize=-5\nListenTimeout=0\n");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->alive_interval, 1);
    EXPECT_EQ(p->logfile_size, -5);
    EXPECT_EQ(p->listen_timeout, 0);
}

TEST_F(settings_test, quotes_and_8_bit_characters_belong_to_a_text) {
    const receiver_params *p =
        read("ExecProg=\"/opt/a # b.sh\" # c\nMsgProg=/\xfc\xe9.sh\n");
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p->exec_prog.get(), "\"/opt/a # b.sh\"");
    EXPECT_STREQ(p->msg_prog.get(), "/\xfc\xe9.sh");
}

TEST_F(settings_test, without_a_home_the_file_names_stand_alone) {
    expect_defaults(read_receiver_config("/nonexistent/x.cfg", "", 1), "");
    expect_defaults(read_receiver_config("/nonexistent/x.cfg", nullptr, 1), "");
}

TEST_F(settings_test, a_slash_always_stands_between_home_and_file) {
    expect_defaults(read_receiver_config("/nonexistent/x.cfg", "/", 1), "//");
    expect_defaults(read_receiver_config("/nonexistent/x.cfg", "/h/", 1),
                    "/h//");
    expect_defaults(read_receiver_config("/nonexistent/x.cfg", "rel", 1),
                    "rel/");
    const std::string deep = "/" + std::string(5000, 'd');
    expect_defaults(read_receiver_config("/nonexistent/x.cfg", deep.c_str(), 1),
                    deep + "/");
}

TEST_F(settings_test, nothing_of_an_earlier_reading_is_left) {
    ASSERT_NE(read("AllowedAddresses=127.0.0.1\nListenPort=9\n"), nullptr);
    const receiver_params *p = read("# empty\n");
    ASSERT_NE(p, nullptr);
    expect_defaults(p, "/home/tolva/");
}

TEST_F(settings_test, free_gives_every_text_back) {
    receiver_params *p = read("AllowedAddresses=127.0.0.1\n");
    ASSERT_NE(p, nullptr);
    const receiver_params *defaults = rp_defaults;
    free_receiver_config();
    for (const text_key &k : FILE_KEYS) {
        EXPECT_EQ((p->*k.field).get(), nullptr) << k.key;
        EXPECT_EQ((defaults->*k.field).get(), nullptr) << k.key;
    }
    free_receiver_config();
    expect_defaults(read("# again\n"), "/home/tolva/");
}

TEST_F(settings_test, a_reading_that_fails_leaves_the_settings_in_force) {
    receiver_params *p = read("AllowedAddresses=127.0.0.1\nListenPort=9\n");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(read(""), nullptr);
    {
        write_file(path, "AllowedAddresses=127.0.0.2\nListenPort=10\n");
        failing_call broken("fgets", EIO, 1);
        EXPECT_EQ(read_receiver_config(path.c_str(), "/other", 1), nullptr);
    }
    EXPECT_EQ(rp, p);
    EXPECT_EQ(p->listenport, 9);
    EXPECT_STREQ(p->allowed_addresses.get(), "127.0.0.1");
    EXPECT_STREQ(p->mail_prog.get(), "/home/tolva/tolva_mail.sh");
    expect_defaults(rp_defaults, "/home/tolva/");
}

/* Memory */

/* The record as one text. */
std::string as_text(const receiver_params *p) {
    std::string all;
    for (const integer_key &k : INTEGER_KEYS) {
        all += std::string(k.key) + "=" + std::to_string(p->*k.field) + "\n";
    }
    for (const auto &keys : {TEXT_KEYS, FILE_KEYS}) {
        for (const text_key &k : keys) {
            const char *text = (p->*k.field).get();
            all += std::string(k.key) + "=" + (text ? text : "(null)") + "\n";
        }
    }
    return all;
}

/*
 * A list of senders that is lost would admit everybody: with too little memory
 * there are no settings at all, never some of them.
 */
TEST_F(settings_test, there_are_all_settings_or_none_whatever_memory_is_left) {
    const std::string content = "AllowedAddresses=127.0.0.1 # mine\n"
                                "ListenPort=7\nShutdownProg=/s.sh\n"
                                "AllowedAddresses=127.0.0.2\n";
    const receiver_params *whole = read(content);
    ASSERT_NE(whole, nullptr);
    const std::string expected = as_text(whole);
    const std::string absent = dir.path("absent.cfg");
    for (const std::string &file : {path, absent}) {
        int left = 0;
        const receiver_params *p = nullptr;
        for (; p == nullptr && left < 1000; left++) {
            failing_heap limit(left);
            p = read_receiver_config(file.c_str(), "/home/tolva", 1);
        }
        ASSERT_NE(p, nullptr);
        EXPECT_GT(left, 40);
        if (file == path) {
            EXPECT_EQ(as_text(p), expected);
        } else {
            expect_defaults(p, "/home/tolva/");
        }
    }
}

TEST_F(settings_test, one_allocation_that_fails_is_enough_for_no_settings) {
    const std::string content = "AllowedAddresses=127.0.0.1\n"
                                "RedundancyAddresses=127.0.0.2 # last\n";
    const receiver_params *whole = read(content);
    ASSERT_NE(whole, nullptr);
    const std::string expected = as_text(whole);
    const std::string absent = dir.path("absent.cfg");
    for (const std::string &file : {path, absent}) {
        int before = 0;
        const receiver_params *p = nullptr;
        for (; p == nullptr && before < 1000; before++) {
            failing_call one("heap", ENOMEM, before, 1);
            p = read_receiver_config(file.c_str(), "/home/tolva", 1);
        }
        ASSERT_NE(p, nullptr);
        EXPECT_GT(before, 40);
        if (file == path) {
            EXPECT_EQ(as_text(p), expected);
        } else {
            expect_defaults(p, "/home/tolva/");
        }
    }
}

TEST_F(settings_test, the_same_holds_for_a_file_that_was_named) {
    const receiver_params *whole = read("AllowedAddresses=127.0.0.1\n");
    ASSERT_NE(whole, nullptr);
    const std::string expected = as_text(whole);
    for (int left = 0; left < 150; left++) {
        free_receiver_config();
        failing_heap limit(left);
        const receiver_params *p =
            read_receiver_config(path.c_str(), "/home/tolva", 0);
        EXPECT_TRUE(p == nullptr || as_text(p) == expected) << left;
    }
}

/* Truth values */

TEST(setting_is_on_test, only_true_in_any_case_is_on) {
    for (const char *on : {"TRUE", "true", "True", "tRuE"}) {
        EXPECT_EQ(setting_is_on(on), 1) << on;
    }
    for (const char *off : {"", "yes", "1", "on", "false", "TRU", "TRUEE",
                            " true", "true ", "\"true\"", "t",
                            "tr\xfc"
                            "e"}) {
        EXPECT_EQ(setting_is_on(off), 0) << off;
    }
    EXPECT_EQ(setting_is_on(nullptr), 0);
}

TEST_F(settings_test, truth_values_from_a_file) {
    for (const char *line :
         {"LogfileEnabled=TRUE", "LogfileEnabled=true", "LogfileEnabled=tRuE",
          "LogfileEnabled=", "LogfileEnabled = true # comment\r"}) {
        const receiver_params *p = read(std::string(line) + "\n");
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(setting_is_on(p->logfile_enabled.get()), 1) << line;
    }
    for (const char *line :
         {"LogfileEnabled=yes", "LogfileEnabled=1", "LogfileEnabled=\"true\"",
          "LogfileEnabled=true false"}) {
        const receiver_params *p = read(std::string(line) + "\n");
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(setting_is_on(p->logfile_enabled.get()), 0) << line;
    }
}

/* Redundancy */

struct redundancy_case {
    const char *enabled;
    const char *batch_file;
    const char *addresses;
    int32_t expected;
};

TEST(check_redundancy_config_test, needs_batch_file_and_addresses_when_on) {
    const redundancy_case cases[] = {
        {"true", "/b.sh", "127.0.0.1", 1}, {"TRUE", "b", "x", 1},
        {"true", "/b.sh", "", 0},          {"true", "/b.sh", nullptr, 0},
        {"true", "", "127.0.0.1", 0},      {"true", nullptr, "127.0.0.1", 0},
        {"true", nullptr, nullptr, 0},     {"true", "", "", 0},
        {"false", nullptr, nullptr, 1},    {"false", "/b.sh", "127.0.0.1", 1},
        {"yes", nullptr, nullptr, 1},      {"", "", "", 1},
        {nullptr, nullptr, nullptr, 1},
    };
    for (const redundancy_case &c : cases) {
        receiver_params p{};
        p.redundancy_enabled = ux_copy(c.enabled);
        p.redundancy_batch_file = ux_copy(c.batch_file);
        p.redundancy_addresses = ux_copy(c.addresses);
        EXPECT_EQ(check_redundancy_config(&p), c.expected)
            << (c.enabled ? c.enabled : "null") << ","
            << (c.batch_file ? c.batch_file : "null") << ","
            << (c.addresses ? c.addresses : "null");
    }
}

TEST_F(settings_test, redundancy_without_addresses_is_refused) {
    EXPECT_EQ(check_redundancy_config(read("RedundancyEnabled=true\n")), 0);
    EXPECT_EQ(check_redundancy_config(
                  read("RedundancyEnabled=true\n"
                       "RedundancyAddresses=127.0.0.1 127.0.0.2\n")),
              1);
    EXPECT_EQ(check_redundancy_config(read("ListenPort=1\n")), 1);
}

/* Writing */

TEST_F(settings_test, a_fresh_file_holds_the_header_and_every_key) {
    ASSERT_NE(read("ListenPort=7000\nAllowedAddresses=127.0.0.1 127.0.0.2\n"),
              nullptr);
    std::string fresh = dir.path("fresh.cfg");
    EXPECT_EQ(write_receiver_config(fresh.c_str(), 1), 1);
    EXPECT_EQ(read_file(fresh),
              std::string(HEADER) +
                  "ListenAddress=0.0.0.0\n"
                  "ListenPort=7000\n"
                  "ListenTimeout=10\n"
                  "ListenUDP=true\n"
                  "AllowedAddresses=127.0.0.1 127.0.0.2\n"
                  "AliveAddresses=\n"
                  "AlivePort=5769\n"
                  "AliveEnabled=false\n"
                  "AliveInterval=1800\n"
                  "AliveRetries=0\n"
                  "LogfileName=/home/tolva/tolva.log\n"
                  "LogfileEnabled=true\n"
                  "LogfileSize=1024\n"
                  "ShutdownProg=/home/tolva/tolva_shutdown.sh\n"
                  "AliveProg=/home/tolva/tolva_notalive.sh\n"
                  "ExecProg=/home/tolva/tolva_execute.sh\n"
                  "MsgProg=/home/tolva/tolva_message.sh\n"
                  "MailProg=/home/tolva/tolva_mail.sh\n"
                  "MsgDatName=/home/tolva/messages.dat\n"
                  "RedundancyEnabled=false\n"
                  "RedundancyBatchFile=/home/tolva/ShutdownSuppressed.sh\n"
                  "RedundancyBatchSuppress=false\n"
                  "RedundancyLevel=0\n"
                  "RedundancyAddresses=\n");
    struct stat status;
    ASSERT_EQ(stat(fresh.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, static_cast<mode_t>(0640));
}

TEST_F(settings_test, a_fresh_file_reads_back_the_same) {
    ASSERT_NE(read("ListenPort=7000\nAlivePort=1\nExecProg=/x y.sh\n"),
              nullptr);
    EXPECT_EQ(write_receiver_config(path.c_str(), 1), 1);
    const std::string first = read_file(path);
    ASSERT_NE(read_receiver_config(path.c_str(), "/other", 0), nullptr);
    EXPECT_EQ(rp->listenport, 7000);
    EXPECT_STREQ(rp->exec_prog.get(), "/x y.sh");
    EXPECT_STREQ(rp->mail_prog.get(), "/home/tolva/tolva_mail.sh");
    EXPECT_EQ(write_receiver_config(path.c_str(), 1), 1);
    EXPECT_EQ(read_file(path), first);
}

TEST_F(settings_test, an_existing_file_keeps_its_comments_and_order) {
    receiver_params *p =
        read("# mine\nMsgProg=/m.sh # note\n\nListenPort=7000\nbad\n");
    ASSERT_NE(p, nullptr);
    p->listenport = 8000;
    EXPECT_EQ(write_receiver_config(path.c_str(), 0), 1);
    const std::string after = read_file(path);
    EXPECT_EQ(after.substr(0, after.find("ListenAddress")),
              "# mine\nMsgProg=/m.sh # note\n\nListenPort=8000\n");
    EXPECT_EQ(after.substr(after.find("ListenAddress")),
              "ListenAddress=0.0.0.0\n"
              "ListenTimeout=10\n"
              "ListenUDP=true\n"
              "AllowedAddresses=\n"
              "AliveAddresses=\n"
              "AlivePort=5769\n"
              "AliveEnabled=false\n"
              "AliveInterval=1800\n"
              "AliveRetries=0\n"
              "LogfileName=/home/tolva/tolva.log\n"
              "LogfileEnabled=true\n"
              "LogfileSize=1024\n"
              "ShutdownProg=/home/tolva/tolva_shutdown.sh\n"
              "AliveProg=/home/tolva/tolva_notalive.sh\n"
              "ExecProg=/home/tolva/tolva_execute.sh\n"
              "MailProg=/home/tolva/tolva_mail.sh\n"
              "MsgDatName=/home/tolva/messages.dat\n"
              "RedundancyEnabled=false\n"
              "RedundancyBatchFile=/home/tolva/ShutdownSuppressed.sh\n"
              "RedundancyBatchSuppress=false\n"
              "RedundancyLevel=0\n"
              "RedundancyAddresses=\n");
}

TEST_F(settings_test, a_file_that_cannot_be_written_gives_0) {
    ASSERT_NE(read("ListenPort=1\n"), nullptr);
    EXPECT_EQ(write_receiver_config(dir.path("no/dir.cfg").c_str(), 1), 0);
    std::string link = dir.path("full.cfg");
    ASSERT_EQ(symlink("/dev/full", link.c_str()), 0);
    EXPECT_EQ(write_receiver_config(link.c_str(), 1), 0);
    EXPECT_EQ(access(link.c_str(), F_OK), -1);
}

/* Trace */

TEST_F(settings_test, names_its_functions_above_trace_level_5_only) {
    auto all = [this] {
        (void)read("ListenPort=1\n");
        (void)check_redundancy_config(rp);
        (void)write_receiver_config(path.c_str(), 1);
        free_receiver_config();
    };
    EXPECT_EQ(traced(-1, all), "");
    EXPECT_EQ(traced(0, all), "");
    EXPECT_EQ(traced(1, all).find("TRACEIN"), std::string::npos);
    std::string output = traced(6, all);
    for (const char *function :
         {"read_receiver_config", "check_redundancy_config",
          "write_receiver_config", "free_receiver_config"}) {
        EXPECT_NE(output.find(std::string("TRACEIN: ") + function + "\n"),
                  std::string::npos)
            << function;
    }
    EXPECT_EQ(output.find("TRACEOUT"), std::string::npos);
    EXPECT_NE(traced(10, all).find("TRACEOUT: set_option_value\n"),
              std::string::npos);
}

TEST_F(settings_test, every_setting_is_shown_with_what_is_in_force) {
    ASSERT_TRUE(read("ListenPort=7\nMailProg=/bin/true\n"));
    setting_views views = settings_in_force();
    EXPECT_STREQ(views.front().key, "ListenAddress");
    EXPECT_EQ(views.front().text, &rp->listen_address);
    EXPECT_EQ(views.front().number, nullptr);
    EXPECT_STREQ(views[1].key, "ListenPort");
    EXPECT_EQ(views[1].number, &rp->listenport);
    EXPECT_EQ(views[1].text, nullptr);
    EXPECT_EQ(*views[1].number, 7);
    EXPECT_STREQ(views.back().key, "RedundancyAddresses");
    EXPECT_EQ(views.back().text, &rp->redundancy_addresses);
    setting_views defaults = settings_by_default();
    EXPECT_STREQ(defaults[1].key, "ListenPort");
    EXPECT_EQ(defaults[1].number, &rp_defaults->listenport);
    EXPECT_EQ(*defaults[1].number, 6003);
}

TEST_F(settings_test, every_key_is_shown_before_anything_is_read) {
    free_receiver_config();
    for (const setting_view &one : settings_in_force()) {
        EXPECT_NE(one.key, nullptr);
        EXPECT_NE(one.number == nullptr, one.text == nullptr) << one.key;
    }
}

} // namespace
