// SPDX-License-Identifier: ISC
// Debian's libstdc++.a for aarch64 was compiled against glibc, whose
// pthread_mutex_t there is 48 bytes; musl's is 40. The type sits inside
// libstdc++'s own objects (std::filebuf's lock, std::mutex), so code
// compiled against musl's size would place every later member where the
// library does not look. Read before any other header, this gives
// pthread_mutex_t glibc's size: musl's functions use only the first 40 bytes
// and its initialiser ({0}) still fits.
#pragma once
typedef struct {
  union {
    int __i[12];
    volatile int __vi[12];
    volatile void* volatile __p[6];
  } __u;
} pthread_mutex_t;
#define __DEFINED_pthread_mutex_t
