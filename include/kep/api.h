/* api.h: what every header of kep shares: the export mark and the compiler's check of printf formats. Their attributes
 * are spelled with underscores, which no macro of a host's, such as a printf of its board's, can mean. */
#ifndef KEP_API_H
#define KEP_API_H

#include <stdint.h>

#if defined(__GNUC__)
/* Marks what the library exports. */
#define KEP_API __attribute__((__visibility__("default")))
/* Has the compiler check a printf format against its arguments. */
#define KEP_PRINTF(formatIndex, firstArgument) __attribute__((__format__(__printf__, formatIndex, firstArgument)))
#else
#define KEP_API
#define KEP_PRINTF(formatIndex, firstArgument)
#endif

#endif
