// driver/utils/string.cpp: bounded copies and lengths
// SPDX-License-Identifier: GPL-2.0-only
#include "driver/utils/string.h"

std::size_t trak_strlen(const char *s) {
    std::size_t n = 0;
    while (s[n] != '\0')
        ++n;
    return n;
}

std::size_t trak_strnlen(const char *s, std::size_t limit) {
    std::size_t n = 0;
    while (n < limit && s[n] != '\0')
        ++n;
    return n;
}

int trak_strcmp(const char *a, const char *b) {
    while (*a != '\0' && *a == *b) {
        ++a;
        ++b;
    }
    return static_cast<unsigned char>(*a) - static_cast<unsigned char>(*b);
}

char *trak_strrchr(char *s, char c) {
    char *last = nullptr;
    for (; *s != '\0'; ++s) {
        if (*s == c)
            last = s;
    }
    return last;
}

bool trak_str_contains(const char *s, const char *part) {
    for (;; ++s) {
        std::size_t n = 0;
        while (part[n] != '\0' && s[n] == part[n])
            ++n;
        if (part[n] == '\0')
            return true;
        if (*s == '\0')
            return false;
    }
}

void trak_strncpy0(char *to, const char *from, std::size_t size) {
    const std::size_t length = trak_strnlen(from, size - 1);
    memcpy(to, from, length);
    memset(to + length, 0, size - length);
}
