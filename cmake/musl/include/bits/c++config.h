// SPDX-License-Identifier: ISC
// libstdc++'s headers as Debian ships them are configured for glibc. Seen
// through this file they compile against musl: the pthread clock waits that
// musl lacks are not used, and the few glibc spellings the locale and ctype
// headers use are given. The ctype masks are glibc's, which musl's
// __ctype_b_loc table also follows.
#pragma once

// The headers ask for a glibc version where glibc moved closer to what musl
// always was: threads in the C library itself (no weak references to
// pthread functions, which a static link would leave null), pthread_self()
// usable at any time, no gets(), no obsolete isinf/isnan.
#define __GLIBC_PREREQ(major, minor) 1
#include_next <bits/c++config.h>

#undef _GLIBCXX_USE_PTHREAD_COND_CLOCKWAIT
#undef _GLIBCXX_USE_PTHREAD_MUTEX_CLOCKLOCK
#undef _GLIBCXX_USE_PTHREAD_RWLOCK_CLOCKLOCK

#define __locale_t locale_t

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define _ISbit(bit) ((bit) < 8 ? ((1 << (bit)) << 8) : ((1 << (bit)) >> 8))
#else
#define _ISbit(bit) (1 << (bit))
#endif
#define _ISupper _ISbit(0)
#define _ISlower _ISbit(1)
#define _ISalpha _ISbit(2)
#define _ISdigit _ISbit(3)
#define _ISxdigit _ISbit(4)
#define _ISspace _ISbit(5)
#define _ISprint _ISbit(6)
#define _ISgraph _ISbit(7)
#define _ISblank _ISbit(8)
#define _IScntrl _ISbit(9)
#define _ISpunct _ISbit(10)
#define _ISalnum _ISbit(11)
