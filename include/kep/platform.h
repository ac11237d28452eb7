/* platform.h: the service layer that the host supplies and the library calls.
 *
 * kep itself stands on libc alone; what differs from board to board is in these five functions. `kep::platform_posix`
 * implements them for a Linux host; a board with services of its own links its own versions instead.
 *
 * Alignment. The library puts a 4-byte header in front of every block and hands out the address after it. Where
 * pointers are wider than 4 bytes or 64-bit values want 8-byte alignment, VRK_Malloc must therefore return blocks that
 * begin 4 bytes short of maximal alignment: (address + 4) is a multiple of alignof(max_align_t). A layer that returns
 * maximally aligned blocks is right only on a machine where 4-byte alignment is enough for every type. A debug build
 * says on standard error, once, that a block is not aligned so.
 *
 * Threads. Once the host has given the library a lock (Kep_SetLock), these functions are called from several threads:
 * VRK_Malloc, VRK_Free and PLM_snprintf with and without the lock held, VRK_RawPrint and VRK_Delay never with it. */
#ifndef KEP_PLATFORM_H
#define KEP_PLATFORM_H

#include <stddef.h>
#include <stdint.h>

#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Returns a block of at least `size` bytes, aligned as said above and not cleared, or NULL when there is none.
 * The least size asked for is 4. */
KEP_API void *VRK_Malloc(uint32_t size);

/* Takes back a block that VRK_Malloc returned. */
KEP_API void VRK_Free(void *block);

/* Writes the formatted text to the diagnostic console: no newline added, nothing held back. Its result is not used.
 * The library calls it with "%s" only, and writes a few texts to standard output itself, after what stdio holds: a
 * layer with the same console must keep their order, and hand out what stdio holds before it writes to the descriptor.
 *
 * kep::platform_posix does so, in one piece among what other threads print, and whatever signals come. A standard
 * output that must not block (O_NONBLOCK) and has no room drops the rest of the text. Returns the number of bytes, or
 * below 0 when not all could be written. */
KEP_API int VRK_RawPrint(const char *format, ...) KEP_PRINTF(1, 2);

/* Blocks the calling thread for `ms` milliseconds. */
KEP_API void VRK_Delay(uint32_t ms);

/* As snprintf: writes at most `size` bytes, terminator included, and returns the length the whole text would have.
 * Cells of text tables under "%d", "%u", "%lld" and "%.0f" to "%.9f" may be printed without it, where what snprintf
 * would print is certain; it is still asked for all others, such as very large doubles. */
KEP_API int PLM_snprintf(char *buffer, size_t size, const char *format, ...) KEP_PRINTF(3, 4);

/* Of kep::platform_posix, in an object of its own that links beside another service layer too: makes the library safe
 * to call from any thread (Kep_SetLock, whose rules hold) by a recursive mutex of the POSIX threads library. Its holder
 * inherits the priority of who waits for it, unless the build has KEP_POSIX_PRIO_INHERIT off. */
KEP_API void KepPosix_UseThreads(void);

#ifdef __cplusplus
}
#endif

#endif
