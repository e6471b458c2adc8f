/*
 * Lines go in at the end of the file, and at its head the oldest are cut off.
 * What is kept in a cut waits in an anonymous file meanwhile, so that whoever
 * has the file open, or owns it, finds the same file afterwards.
 */
#include "tolva2/files/bounded_file.h"
#include "tolva2/files/reserve.h"
#include "unixtools/ux_owned.h"
#include "unixtools/ux_portable.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr size_t FILE_BLOCK = 8192;

/* Copies what is left of from, a block at a time, back into the file. The
 * count starts again from 0 at every second block, so it is 0 after an even
 * number of them: the line that caused the cut is then lost, and the next one
 * finds room. */
bool write_back(FILE *from, const char *path) {
    ux_file file = open_file(path, "we");
    if (!file) {
        return false;
    }
    char block[FILE_BLOCK];
    size_t count = 0;
    size_t length = 0;
    while ((length = fread(block, 1, sizeof block, from)) > 0) {
        count += fwrite(block, 1, length, file.get());
        if (count != length) {
            count = 0;
        }
    }
    /* What is still buffered may be what does not fit the disk. */
    return ux_close(std::move(file)) && count > 0;
}

/* Copies the file from the first line behind offset on to another one. */
bool save_tail(const char *path, off_t offset, FILE *to) {
    ux_file file = open_file(path, "re");
    if (!file || fseeko(file.get(), offset, SEEK_SET) != 0) {
        return false;
    }
    char block[FILE_BLOCK + 1];
    /* The rest of the line at the cut goes, to start at a whole one. */
    [[maybe_unused]] const char *dropped =
        fgets(block, sizeof block, file.get());
    size_t length = 0;
    while ((length = fread(block, 1, FILE_BLOCK, file.get())) > 0) {
        if (fwrite(block, 1, length, to) != length) {
            return false;
        }
    }
    return !ferror(file.get()) && fflush(to) == 0;
}

/* A new file in a directory, which ends in a slash, and without a name. */
ux_fd unnamed_file(const char *directory) {
#ifdef O_TMPFILE
    /* Not every file system can do that. */
    ux_fd unnamed(open(directory, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (unnamed) {
        return unnamed;
    }
#endif
    ux_text name = ux_join({directory, ".tolva-XXXXXX"});
    ux_fd named(name ? ux_new_file(name.get()) : -1);
    if (named) {
        unlink(name.get());
    }
    return named;
}

/* A stream on an anonymous file in the directory where path leads to; null
 * where there can be none. */
ux_file stream_beside(const char *path) {
    ux_text directory(realpath(path, nullptr));
    char *slash = directory ? strrchr(directory.get(), '/') : nullptr;
    if (!slash) {
        return nullptr;
    }
    slash[1] = '\0';
    ux_fd file = unnamed_file(directory.get());
    ux_file stream(file ? fdopen(file.get(), "w+") : nullptr);
    if (stream) {
        static_cast<void>(file.release());
    }
    return stream;
}

/* What is to be kept, in an anonymous file: beside the log, where a full /tmp
 * does no harm, or else among the temporary files, where a full log disk does
 * none. Null when it fits neither. */
ux_file kept_part(const char *path, off_t offset) {
    ux_file copy = stream_beside(path);
    if (copy && save_tail(path, offset, copy.get())) {
        return copy;
    }
    copy.reset(tmpfile());
    if (copy && save_tail(path, offset, copy.get())) {
        return copy;
    }
    return nullptr;
}

/* Cuts the head of the file; for the result see write_back. It stands by itself,
 * or its blocks would be a part of every line's stack, and of the memory that a
 * listener keeps. */
[[gnu::noinline]] bool cut_head(const char *path, off_t offset) {
    ux_file kept = kept_part(path, offset);
    if (!kept && give_up_reserve()) {
        kept = kept_part(path, offset);
    }
    if (!kept) {
        return false;
    }
    rewind(kept.get());
    return write_back(kept.get(), path);
}

/* Takes back what there is of a torn line of that length, or else the next
 * one would continue it. Scripts may write here too: nothing is taken back
 * when more than the line stands behind the former end. */
void take_back(const char *path, off_t former_size, size_t length) {
    struct stat status;
    if (stat(path, &status) == 0 && status.st_size > former_size &&
        status.st_size - former_size <= static_cast<off_t>(length)) {
        [[maybe_unused]] int result = truncate(path, former_size);
    }
}

} // namespace

bool check_size(const char *path, int64_t limit, int64_t allowed) {
    struct stat status;
    if (stat(path, &status) < 0 || status.st_size < allowed) {
        return true;
    }
    /* A tenth more than needed, so that not every new line costs a cut. */
    return cut_head(path, limit / 10 + status.st_size - allowed);
}

bool append_bounded(const char *path, int64_t limit, std::string_view line) {
    auto length = static_cast<int64_t>(line.size());
    if (limit > 0 && !check_size(path, limit, limit - length)) {
        return false;
    }
    ux_file file = open_file(path, "a+e");
    struct stat before;
    if (!file || fstat(fileno(file.get()), &before) < 0) {
        return false;
    }
    /* One line, and nothing to gather. */
    setvbuf(file.get(), nullptr, _IONBF, 0);
    bool taken = fwrite(line.data(), 1, line.size(), file.get()) == line.size();
    if (ux_close(std::move(file)) && taken) {
        return true;
    }
    take_back(path, before.st_size, line.size());
    return false;
}
