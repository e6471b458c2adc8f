/*
 * The listener's calls for files: the log, its copy while it is cut, the
 * message texts. The streams are the C library's own, on bytes in memory.
 */
#include "calls.h"
#include "world.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace simulate;

namespace simulate {
namespace {

/* How much of so many bytes the disk takes. */
size_t room_for(size_t size) {
    if (here->disk_room < 0) {
        return size;
    }
    size_t fits = std::min(size, static_cast<size_t>(here->disk_room));
    here->disk_room -= static_cast<int64_t>(fits);
    return fits;
}

ssize_t read_bytes(void *cookie, char *buffer, size_t size) {
    auto *it = static_cast<file_handle *>(cookie);
    const std::string &bytes = it->body->bytes;
    size_t left = it->position < bytes.size() ? bytes.size() - it->position : 0;
    size_t length = std::min(left, size);
    memcpy(buffer, bytes.data() + it->position, length);
    it->position += length;
    return static_cast<ssize_t>(length);
}

ssize_t write_bytes(void *cookie, const char *data, size_t size) {
    auto *it = static_cast<file_handle *>(cookie);
    std::string *bytes = &it->body->bytes;
    if (it->appends) {
        it->position = bytes->size();
    }
    size_t fits = room_for(size);
    if (it->appends) {
        fact *told = here->note(act::line);
        told->text.assign(data, size);
        told->result = static_cast<int64_t>(fits);
        told->limit = static_cast<int64_t>(bytes->size());
    }
    it->changed = true;
    if (fits < size) {
        it->torn = true;
        if (it->body->which == FILE_COPY) {
            here->note(act::copy_failed);
        }
    }
    bytes->resize(std::max(bytes->size(), it->position + fits));
    bytes->replace(it->position, fits, data, fits);
    it->position += fits;
    if (fits < size) {
        errno = ENOSPC;
    }
    return static_cast<ssize_t>(fits);
}

int move_to(void *cookie, off64_t *offset, int whence) {
    auto *it = static_cast<file_handle *>(cookie);
    auto base = static_cast<int64_t>(
        whence == SEEK_SET
            ? 0
            : (whence == SEEK_CUR ? it->position : it->body->bytes.size()));
    it->position = static_cast<size_t>(base + *offset);
    *offset = static_cast<off64_t>(it->position);
    return 0;
}

int close_bytes(void *cookie) {
    auto *it = static_cast<file_handle *>(cookie);
    here->close_number(it->fd);
    if (it->body->which == FILE_LOG && !it->appends && it->changed) {
        fact *told = here->note(act::rewritten);
        told->text = it->body->bytes;
        told->error = it->torn ? ENOSPC : 0;
    }
    for (auto one = here->streams.begin(); one != here->streams.end(); ++one) {
        if (one->second == it) {
            here->streams.erase(one);
            break;
        }
    }
    delete it;
    return 0;
}

FILE *open_stream(std::shared_ptr<file_body> body, int fd, const char *mode) {
    auto *it = new file_handle;
    it->body = std::move(body);
    it->fd = fd;
    it->appends = mode[0] == 'a';
    std::string plain = mode;
    plain.erase(std::remove(plain.begin(), plain.end(), 'e'), plain.end());
    FILE *stream = fopencookie(it, plain.c_str(),
                               {read_bytes, write_bytes, move_to, close_bytes});
    here->streams[stream] = it;
    return stream;
}

void refuse(which_file which, int error) {
    fact *told = here->note(act::open_failed);
    told->who = which;
    told->error = error;
    errno = error;
}

/* An anonymous file's number. */
int open_unnamed(bool close_on_exec) {
    int fd = here->open_number(holds::file, 0, close_on_exec);
    if (fd < 0) {
        refuse(FILE_COPY, errno);
        return fd;
    }
    here->unnamed[fd] = std::make_shared<file_body>();
    return fd;
}

ssize_t tell_line(void *cookie, const char *data, size_t size) {
    here->note(cookie != nullptr ? act::said : act::printed)
        ->text.assign(data, size);
    return static_cast<ssize_t>(size);
}

} // namespace

FILE *open_teller(bool standard_error) {
    static int marker;
    FILE *stream = fopencookie(standard_error ? &marker : nullptr, "w",
                               {nullptr, tell_line, nullptr, nullptr});
    setvbuf(stream, nullptr, _IOLBF, 0);
    return stream;
}

} // namespace simulate

extern "C" {

FILE *__wrap_fopen(const char *path, const char *mode) {
    bool is_log = strcmp(path, LOG_NAME) == 0;
    which_file which = is_log ? FILE_LOG : FILE_TEXTS;
    if (which == FILE_TEXTS && here->texts_lost) {
        refuse(which, ENOENT);
        return nullptr;
    }
    if (strchr(mode, 'e') == nullptr) {
        fail("a file that scripts would inherit");
    }
    int fd = here->open_number(holds::file, 0, true);
    if (fd < 0) {
        refuse(which, errno);
        return nullptr;
    }
    auto found = here->files.find(path);
    if (found == here->files.end()) {
        if (mode[0] == 'r') {
            here->close_number(fd);
            refuse(which, ENOENT);
            return nullptr;
        }
        auto body = std::make_shared<file_body>();
        body->which = which;
        found = here->files.emplace(path, body).first;
    }
    if (mode[0] == 'w') {
        found->second->bytes.clear();
    }
    if (which == FILE_TEXTS) {
        here->note(act::opened);
    }
    FILE *stream = open_stream(found->second, fd, mode);
    if (mode[0] == 'w') {
        here->streams[stream]->changed = true;
    }
    return stream;
}

FILE *__wrap_fdopen(int fd, const char *mode) {
    if (here == nullptr) {
        return __real_fdopen(fd, mode);
    }
    std::shared_ptr<file_body> body = here->unnamed[fd];
    here->unnamed.erase(fd);
    return open_stream(body, fd, mode);
}

FILE *__wrap_tmpfile() {
    int fd = open_unnamed(true);
    return fd < 0 ? nullptr : __wrap_fdopen(fd, "w+");
}

int __wrap_fileno(FILE *stream) { return here->streams.at(stream)->fd; }

int __wrap_fstat(int fd, struct stat *status) {
    for (const auto &[stream, it] : here->streams) {
        if (it->fd == fd) {
            *status = {};
            status->st_mode = S_IFREG;
            status->st_size = static_cast<off_t>(it->body->bytes.size());
            return 0;
        }
    }
    fail("fstat of descriptor " + std::to_string(fd));
}

int __wrap_stat(const char *path, struct stat *status) {
    auto found = here->files.find(path);
    if (found == here->files.end()) {
        errno = ENOENT;
        return -1;
    }
    *status = {};
    status->st_mode = S_IFREG;
    status->st_size = static_cast<off_t>(found->second->bytes.size());
    return 0;
}

int __wrap_truncate(const char *path, off_t size) {
    auto found = here->files.find(path);
    if (found == here->files.end()) {
        errno = ENOENT;
        return -1;
    }
    found->second->bytes.resize(static_cast<size_t>(size));
    return 0;
}

char *__wrap_realpath(const char *path, char *) {
    here->note(act::copy_begins);
    here->blocks++;
    return __real_strdup(path);
}

int __wrap_open(const char *path, int flags, ...) {
    if (here == nullptr) {
        return __real_open(path, flags, 0644);
    }
    if (strcmp(path, "/") == 0) {
        int error = 0;
        int fd = -1;
        if (here->fails("open", &error)) {
            errno = error;
        } else {
            fd = here->open_number(holds::reserve, 0, (flags & O_CLOEXEC) != 0);
        }
        if (fd < 0) {
            error = errno;
            here->note(act::reserve_failed)->error = error;
            errno = error;
        }
        return fd;
    }
    if (!here->plan->settings.log_directory_writable ||
        !here->plan->settings.unnamed_files) {
        here->names_copy = true;
        errno = EOPNOTSUPP;
        return -1;
    }
    int fd = open_unnamed((flags & O_CLOEXEC) != 0);
    /* Without one comes a name for it. */
    here->names_copy = fd < 0;
    return fd;
}

int __wrap_mkostemp(char *, int flags) {
    if (!here->plan->settings.log_directory_writable) {
        errno = EACCES;
        return -1;
    }
    return open_unnamed((flags & O_CLOEXEC) != 0);
}

int __wrap_unlink(const char *) { return 0; }

ssize_t __wrap_write(int, const void *, size_t size) {
    return static_cast<ssize_t>(size);
}
}
