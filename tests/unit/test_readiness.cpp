/* What a service manager is told, and what comes of one that cannot be. */
#include "failing_calls.h"
#include "operator_log.h"

#include "tolva2/listen/readiness.cpp" // NOLINT(bugprone-suspicious-include)

namespace {

/* A service manager's socket at a path, or at an abstract name. */
class service_manager {
  public:
    explicit service_manager(const std::string &name)
        : socket_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path);
        if (name[0] == '@') {
            address.sun_path[0] = '\0';
        }
        auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) +
                                             name.size());
        EXPECT_EQ(bind(socket_fd.get(),
                       static_cast<const sockaddr *>(
                           static_cast<const void *>(&address)),
                       length),
                  0)
            << strerror(errno);
    }
    /* What has arrived, one datagram; "" when there is none. */
    std::string heard() const {
        char text[64];
        ssize_t length = recv(socket_fd.get(), text, sizeof text, 0);
        return length < 0 ? "" : std::string(text, static_cast<size_t>(length));
    }

  private:
    ux_fd socket_fd;
};

/* A daemon that has been started by whoever listens at that name. */
class started_service {
  public:
    explicit started_service(const std::string &name) {
        manager = {};
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
    }
    ~started_service() {
        unsetenv("NOTIFY_SOCKET");
        manager = {};
    }
    started_service(const started_service &) = delete;
    started_service &operator=(const started_service &) = delete;
    operator_log log;
};

} // namespace

TEST(readiness, a_manager_hears_when_it_is_ready_and_when_it_stops) {
    temp_dir place;
    const std::string own = std::to_string(getpid());
    for (const std::string &name :
         {place.path("notify"), "@tolva-unit-" + own}) {
        service_manager systemd(name);
        started_service service(name);
        announce_ready();
        EXPECT_EQ(systemd.heard(), "READY=1") << name;
        announce_stopping();
        EXPECT_EQ(systemd.heard(), "STOPPING=1") << name;
        EXPECT_EQ(systemd.heard(), "") << name;
        EXPECT_EQ(service.log.lines(), log_lines{});
    }
}

TEST(readiness, scripts_do_not_inherit_the_managers_socket) {
    temp_dir place;
    service_manager systemd(place.path("notify"));
    started_service service(place.path("notify"));
    announce_ready();
    EXPECT_EQ(getenv("NOTIFY_SOCKET"), nullptr);
}

TEST(readiness, without_a_manager_nobody_is_told) {
    started_service service("");
    announce_ready();
    announce_stopping();
    unsetenv("NOTIFY_SOCKET");
    announce_ready();
    announce_stopping();
    EXPECT_EQ(service.log.lines(), log_lines{});
}

TEST(readiness, the_longest_name_that_fits_is_used_whole) {
    std::string name = "@tolva-unit-" + std::to_string(getpid());
    name.resize(sizeof manager.address.sun_path, 'x');
    service_manager systemd(name);
    started_service service(name);
    announce_ready();
    EXPECT_EQ(systemd.heard(), "READY=1");
    EXPECT_EQ(service.log.lines(), log_lines{});
}

TEST(readiness, a_longer_name_is_an_error_and_nobody_is_told) {
    std::string name = "@tolva-unit-" + std::to_string(getpid());
    name.resize(sizeof manager.address.sun_path, 'x');
    service_manager cut(name);
    started_service service(name + "x");
    announce_ready();
    announce_stopping();
    EXPECT_EQ(cut.heard(), "");
    EXPECT_EQ(service.log.lines(), log_lines{system_line(ENAMETOOLONG)});
}

TEST(readiness, a_manager_that_is_gone_is_told_of_in_the_log) {
    temp_dir place;
    started_service service(place.path("nobody"));
    announce_ready();
    EXPECT_EQ(service.log.lines(), log_lines{system_line(ENOENT)});
}

TEST(readiness, what_the_system_refuses_is_told_of_in_the_log) {
    temp_dir place;
    service_manager systemd(place.path("notify"));
    started_service service(place.path("notify"));
    {
        failing_call none("socket", EMFILE);
        announce_ready();
    }
    {
        failing_call no_patience("setsockopt", ENOMEM);
        announce_stopping();
    }
    EXPECT_EQ(systemd.heard(), "");
    const log_lines expected = {system_line(EMFILE), system_line(ENOMEM)};
    EXPECT_EQ(service.log.lines(), expected);
}

TEST(readiness, a_manager_that_reads_nothing_is_waited_for_five_seconds) {
    EXPECT_EQ(PATIENCE.tv_sec, 5);
    EXPECT_EQ(PATIENCE.tv_usec, 0);
}
