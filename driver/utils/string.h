// driver/utils/string.h: bounded copies and lengths
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_UTILS_STRING_H
#define TRAK_UTILS_STRING_H

#include <cstddef>

extern "C" {
// The four that compilers call on their own; every platform has them.
void *memcpy(void *to, const void *from, std::size_t n) noexcept;
void *memmove(void *to, const void *from, std::size_t n) noexcept;
void *memset(void *to, int c, std::size_t n) noexcept;
int memcmp(const void *a, const void *b, std::size_t n) noexcept;
}

std::size_t trak_strlen(const char *s);
std::size_t trak_strnlen(const char *s, std::size_t limit);
int trak_strcmp(const char *a, const char *b);
// Position of the last c in s, or null.
char *trak_strrchr(char *s, char c);
// True when part occurs in s.
bool trak_str_contains(const char *s, const char *part);
// Copies at most size - 1 characters of from (which may lack a NUL within size), fills the rest of
// the field with zeroes; its last byte is always 0.
void trak_strncpy0(char *to, const char *from, std::size_t size);

#endif
