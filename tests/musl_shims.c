// SPDX-License-Identifier: ISC
// What Debian's libstdc++.a, built against glibc, needs from the C library
// beyond what musl offers. Linked into the test programs of the musl builds
// only (with --wrap for the two locale constructors); the daemon uses none of
// the C++ runtime.
#include <locale.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>

// libstdc++ skips atomic reference counts while this says "one thread".
// Zero keeps every count atomic, which is always correct.
char __libc_single_threaded = 0;

// std::random_device's default source.
uint32_t arc4random(void) {
  uint32_t value = 0;
  while (getrandom(&value, sizeof value, 0) != (ssize_t)sizeof value) {
  }
  return value;
}

// The x86_64 unwinder asks glibc's loader where a function's unwind tables
// are before it walks the program headers. A static program has no loader;
// crtbeginT.o registers the program's tables at start-up, and the unwinder
// looks there first, so "not found" here is the true answer.
struct dl_find_object;
int _dl_find_object(void* pc, struct dl_find_object* result) {
  (void)pc;
  (void)result;
  return -1;
}

// libstdc++'s ctype<char> reads its classification and case tables straight
// out of the locale object, at the offsets of glibc's layout. musl's locale
// object is one map pointer per category and nothing else. So every locale
// libstdc++ makes is handed out in glibc's shape: musl's pointers at the
// head, where musl's own functions read them, and the tables (which musl
// keeps in glibc's format for exactly this kind of binary) where libstdc++
// reads them. musl's freelocale() frees such a block as its own.
struct glibc_shaped_locale {
  const void* categories[13];  // musl uses the first LC_ALL of them
  const unsigned short* ctype_b;
  const int* ctype_tolower;
  const int* ctype_toupper;
  const char* names[13];
};

const unsigned short** __ctype_b_loc(void);
const int32_t** __ctype_tolower_loc(void);
const int32_t** __ctype_toupper_loc(void);
locale_t __real___newlocale(int mask, const char* name, locale_t base);
locale_t __real___duplocale(locale_t old);

static locale_t glibc_shaped(locale_t musl_locale) {
  if (!musl_locale) return 0;
  struct glibc_shaped_locale* shaped = calloc(1, sizeof *shaped);
  if (!shaped) return 0;
  memcpy(shaped->categories, musl_locale, LC_ALL * sizeof(void*));
  shaped->ctype_b = *__ctype_b_loc();
  shaped->ctype_tolower = *__ctype_tolower_loc();
  shaped->ctype_toupper = *__ctype_toupper_loc();
  for (int i = 0; i < 13; ++i) shaped->names[i] = "C";
  freelocale(musl_locale);  // frees only what musl allocated
  return (locale_t)shaped;
}

locale_t __wrap___newlocale(int mask, const char* name, locale_t base) {
  locale_t made = __real___newlocale(mask, name, base);
  // A base of ours is changed in place and keeps its shape.
  return made && made == base ? made : glibc_shaped(made);
}

locale_t __wrap___duplocale(locale_t old) { return glibc_shaped(__real___duplocale(old)); }
