// The allocator state every parser benchmark runs in.
#pragma once

#include <malloc.h>

namespace zelph::bench {

// Fixes glibc's trim and mmap thresholds; call before anything runs. Left
// alone, glibc moves its mmap threshold up as the first large blocks are
// freed and gives memory back to the system past the trim threshold, so the
// allocator's state (and the cost of every block of the 1 MB documents and
// their trees) would depend on which reader happened to run first and on the
// order of the interleaved repetitions. With both fixed, well above the
// largest document, ours and the peers run in the same allocator state: every
// block comes from the heap, which is not trimmed. False when glibc refuses.
inline bool FixAllocatorThresholds() {
  return mallopt(M_TRIM_THRESHOLD, 256 << 20) == 1 && mallopt(M_MMAP_THRESHOLD, 32 << 20) == 1;
}

}  // namespace zelph::bench
