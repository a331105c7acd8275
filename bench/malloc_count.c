// SPDX-License-Identifier: ISC
// Preloaded into a dynamically linked wdsd (and the floor program) by
// footprint.sh: counts every heap call of the process, the C library's own
// on its behalf included, since glibc's internal calls go through these
// names too. The counts live in the file WDS_MALLOC_COUNT_FILE names, mapped
// shared, so they can be read while the process runs and survive its fork:
// seven 64-bit counters in native byte order, in the order of `enum call`.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

// glibc's own entry points, reached without dlsym (which allocates).
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void __libc_free(void* block);
void* __libc_memalign(size_t alignment, size_t size);

enum call { kMalloc, kCalloc, kRealloc, kFree, kPosixMemalign, kAlignedAlloc, kMemalign, kCalls };

static uint64_t before_mapping[kCalls];  // calls made before the constructor ran
static uint64_t* counts = before_mapping;

static void count(enum call c) { __atomic_fetch_add(&counts[c], 1, __ATOMIC_RELAXED); }

__attribute__((constructor)) static void map_counts(void) {
  const char* path = getenv("WDS_MALLOC_COUNT_FILE");
  if (path == NULL) return;
  int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return;
  if (ftruncate(fd, sizeof before_mapping) == 0) {
    void* shared = mmap(NULL, sizeof before_mapping, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (shared != MAP_FAILED) {
      memcpy(shared, before_mapping, sizeof before_mapping);
      counts = shared;
    }
  }
  close(fd);
}

void* malloc(size_t size) {
  count(kMalloc);
  return __libc_malloc(size);
}

void* calloc(size_t n, size_t size) {
  count(kCalloc);
  return __libc_calloc(n, size);
}

void* realloc(void* old, size_t size) {
  count(kRealloc);
  return __libc_realloc(old, size);
}

void free(void* block) {
  count(kFree);
  __libc_free(block);
}

int posix_memalign(void** out, size_t alignment, size_t size) {
  count(kPosixMemalign);
  void* block = __libc_memalign(alignment, size);
  if (block == NULL) return ENOMEM;
  *out = block;
  return 0;
}

void* aligned_alloc(size_t alignment, size_t size) {
  count(kAlignedAlloc);
  return __libc_memalign(alignment, size);
}

void* memalign(size_t alignment, size_t size) {
  count(kMemalign);
  return __libc_memalign(alignment, size);
}
