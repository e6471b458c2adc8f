/*
 * The numbered texts of the operator's messages, looked up in a plain file
 * ("m756=text") that stands beside the program. Nothing is cached: an edited
 * file counts from the next lookup on.
 */
#ifndef TOLVA2_FILES_MSGDB_H
#define TOLVA2_FILES_MSGDB_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

/* Names the file. False when name is null, empty, no regular file (errno
 * tells) or memory is exhausted; a former name then stays. */
[[nodiscard]] bool msgdb_open(const char *name);
void msgdb_close();

/* The text of a message in one shared buffer of 1,024 bytes, which the next
 * call overwrites; null when there is no text. */
[[nodiscard]] const char *msgdb_get(int32_t number);

/* The same for an event that not every database knows: the trace does not
 * show that it was looked for. */
[[nodiscard]] const char *msgdb_peek(int32_t number);

/* The same into buffer: the length of the text, 0 when there is none or no
 * file, -1 for a null buffer or a size of 0. buffer is empty without a text. */
[[nodiscard]] int32_t msgdb_get_into(int32_t number, char *buffer, size_t size);

/* Does a line of the database have that number? Its text may be empty, which
 * is how somebody keeps an event silent. errno is 0 then, and when there is
 * none; where the database cannot be read it is false, and errno tells. */
[[nodiscard]] bool msgdb_lists(int32_t number);

/* The search itself, on an open stream. Results as msgdb_get_into. */
[[nodiscard]] int32_t msgdb_find(FILE *stream, char *buffer, size_t size,
                                 int32_t number);

#endif
