/*
 * Every directory from the file up to the root counts, along the path as it is
 * written and along the one that links lead to: who can rename one of them can
 * put another in its place.
 */
#include "tolva2/checkconf/writers.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <sys/stat.h>

namespace {

constexpr mode_t OTHERS_WRITE = S_IWGRP | S_IWOTH;

/* In a container root may have another number. */
bool is_trusted(uid_t owner) {
    struct stat root;
    return owner == 0 || owner == geteuid() ||
           (stat("/", &root) == 0 && owner == root.st_uid);
}

/* What somebody could do, as the end of a finding. */
constexpr const char *CHANGE_IT = "and so change what root does";
constexpr const char *REPLACE_IT = "and so replace what is in it";

void check_mode(findings *found, int32_t line, const char *path,
                const struct stat &status, mode_t forbidden) {
    const char *what = S_ISDIR(status.st_mode) ? REPLACE_IT : CHANGE_IT;
    if (!is_trusted(status.st_uid)) {
        found->error(
            line,
            "%s belongs to user %u, who can write to it %s: chown root %s",
            path, status.st_uid, what, path);
    }
    if (status.st_mode & forbidden) {
        const char *who =
            status.st_mode & S_IWOTH ? "everybody" : "every user of its group";
        found->error(line, "%s can be written to by %s, %s: chmod go-w %s",
                     path, who, what, path);
    }
}

/* The directories above an absolute path. In a sticky one, such as /tmp, only
 * the owner of a directory can rename it. */
void check_directories(findings *found, const char *path) {
    ux_text copy = ux_copy(path);
    if (!copy) {
        no_memory_to_check();
    }
    bool nearest = true;
    while (char *slash = strrchr(copy.get(), '/')) {
        slash[0] = '\0';
        const char *directory = slash == copy.get() ? "/" : copy.get();
        struct stat status;
        if (stat(directory, &status) == 0) {
            bool sticky = !nearest && (status.st_mode & S_ISVTX);
            check_mode(found, NO_LINE, directory, status,
                       sticky ? 0 : OTHERS_WRITE);
        } else {
            say_unseen(found, NO_LINE, directory);
        }
        nearest = false;
    }
}

/* A path from the root on. */
ux_text absolute(const char *path) {
    ux_text here(*path == '/' ? nullptr : getcwd(nullptr, 0));
    ux_text whole = *path == '/' ? ux_copy(path)
                    : here       ? ux_join({here.get(), "/", path})
                                 : nullptr;
    if (!whole) {
        no_memory_to_check();
    }
    return whole;
}

} // namespace

void check_writers(findings *found, int32_t line, const char *path) {
    struct stat status;
    if (stat(path, &status) == 0) {
        check_mode(found, line, path, status, OTHERS_WRITE);
    } else {
        say_unseen(found, line, path);
    }
    check_directories(found, absolute(path).get());
    ux_text real(realpath(path, nullptr));
    if (real) {
        check_directories(found, real.get());
    } else {
        say_unseen(found, line, path);
    }
}

void say_unseen(findings *found, int32_t line, const char *path) {
    if (errno == ENOMEM) {
        no_memory_to_check();
    }
    if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP) {
        found->error(line, "%s cannot be looked at (%s): check it as root",
                     path, strerror(errno));
    }
}
