/* The file of hosts: what is an address, what is a name, and what is told
 * once. */
#include "tolva2/fleet/host_list.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string>
#include <vector>

namespace {

host_list parsed(const std::string &text, uint16_t port = 6003) {
    ux_text copy(static_cast<char *>(malloc(text.size() + 1)));
    memcpy(copy.get(), text.c_str(), text.size() + 1);
    return parse_hosts(std::move(copy), text.size(), port);
}

/* "target|name|fault" of each host. */
std::vector<std::string> shown(host_list list) {
    std::vector<std::string> lines;
    for (const fleet_host &host : list) {
        lines.push_back(std::string(host.target) + "|" +
                        std::string(host.name) + (host.fault ? "|!" : "|"));
    }
    return lines;
}

using lines = std::vector<std::string>;

} // namespace

TEST(parse_target, takes_exact_addresses) {
    for (const char *text : {"127.0.0.1", "0.0.0.1", "255.255.255.255",
                             "192.0.2.89", "10.0.0.0"}) {
        parsed_target target = parse_target(text, 6003);
        EXPECT_EQ(target.fault, nullptr) << text;
        EXPECT_FALSE(target.by_name) << text;
        EXPECT_EQ(target.address.s_addr, inet_addr(text)) << text;
        EXPECT_EQ(target.port, 6003) << text;
    }
}

TEST(parse_target, refuses_what_others_read_as_another_address) {
    for (const char *text : {"192.0.2.089",
                             "127.1.0.010",
                             "127.1",
                             "2130706433",
                             "1.2.3.256",
                             "1.2.3.4.5",
                             "1.2.3.",
                             ".1.2.3",
                             "1..2.3",
                             "0x7f.0.0.1",
                             "1.2.3.0x4",
                             "00.0.0.1",
                             "1.2.3.99999999999",
                             "0.0.0.0",
                             "",
                             "*",
                             "-ab",
                             "+1.2.3.4",
                             "a b",
                             "web.1",
                             "web.0x1",
                             "::1",
                             "web/1",
                             "\x80"}) {
        EXPECT_NE(parse_target(text, 6003).fault, nullptr) << text;
    }
}

TEST(parse_target, takes_names_and_ports) {
    parsed_target target = parse_target("web-1_a.example.:65535", 6003);
    EXPECT_EQ(target.fault, nullptr);
    EXPECT_TRUE(target.by_name);
    EXPECT_EQ(target.host, "web-1_a.example.");
    EXPECT_EQ(target.port, 65535);
    EXPECT_EQ(parse_target("1.2.3.4:1", 6003).port, 1);
    for (const char *text : {"web:", "web:0", "web:65536", "web:1x", "web:-1",
                             "web:1:2", "web:01", "web: 1"}) {
        EXPECT_NE(parse_target(text, 6003).fault, nullptr) << text;
    }
    EXPECT_NE(parse_target(std::string(254, 'a'), 1).fault, nullptr);
    EXPECT_EQ(parse_target(std::string(253, 'a'), 1).fault, nullptr);
}

TEST(parse_hosts, reads_lines_of_any_kind) {
    EXPECT_EQ(
        shown(parsed("\xef\xbb\xbf# a list\r\n\r\n  1.2.3.4\tweb  one # "
                     "x\r\n1.2.3.5#y\n\n1.2.3.06 z\nweb:7")),
        (lines{"1.2.3.4|web  one|", "1.2.3.5||", "1.2.3.06|z|!", "web:7||"}));
    EXPECT_EQ(shown(parsed("")), lines{});
    EXPECT_EQ(shown(parsed("\n#\n  \n")), lines{});
}

TEST(parse_hosts, takes_a_host_once) {
    EXPECT_EQ(
        shown(parsed("1.2.3.4 a\n1.2.3.4:6003 b\n1.2.3.4:1 c\nWeb\nwEB d\n"
                     "*\n*\n1.2.3.4\n")),
        (lines{"1.2.3.4|a|", "1.2.3.4:1|c|", "Web||", "*||!"}));
}

TEST(parse_hosts, a_byte_that_is_no_text_makes_a_line_invalid) {
    EXPECT_EQ(shown(parsed(std::string("1.2.3.4\0\n1.2.3.5\n", 17))),
              (lines{std::string("1.2.3.4\0", 8) + "||!", "1.2.3.5||"}));
}

TEST(find_host, knows_each_by_its_target) {
    std::string text;
    for (int n = 0; n < 5000; n++) {
        text += "10.0." + std::to_string(n / 250) + "." +
                std::to_string(n % 250) + "\n";
    }
    host_list list = parsed(text);
    ASSERT_EQ(list.count, 5000u);
    EXPECT_EQ(find_host(list, "10.0.0.0"), 0);
    EXPECT_EQ(find_host(list, "10.0.19.249:6003"), 4999);
    EXPECT_EQ(find_host(list, "10.0.20.0"), NO_HOST);
}

TEST(read_file, says_why_it_cannot) {
    EXPECT_EQ(read_file("/nonexistent/file").bytes, nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(read_file("/").bytes, nullptr);
    EXPECT_EQ(errno, EISDIR);
    file_text nothing = read_file("/dev/null");
    EXPECT_STREQ(nothing.bytes.get(), "");
    EXPECT_EQ(nothing.length, 0u);
}
