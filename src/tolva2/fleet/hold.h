/*
 * A lock that is gone with whoever has it, however that ends, and needs no
 * place to write to.
 */
#ifndef TOLVA2_FLEET_HOLD_H
#define TOLVA2_FLEET_HOLD_H

#include <cstdint>
#include <span>

/* Where the lock stays open in the program. */
constexpr int LOCK_DESCRIPTOR = 9;

/* Locks a file, which is only read, and becomes the program of that full path.
 * Returns exit status 2, after a line on standard error, when it cannot, or
 * when somebody else has the lock. */
[[nodiscard]] int32_t hold_and_run(const char *file,
                                   std::span<char *const> program);

#endif
