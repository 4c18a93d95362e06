/* What the fuzz targets share: a check that stays on in every build and
 * names the property broken, and a reader of the fuzzer's input. */
#ifndef OST_FUZZ_FUZZ_H
#define OST_FUZZ_FUZZ_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#define FUZZ_CHECK(expr)                                                \
	do {                                                            \
		if (!(expr)) {                                          \
			fprintf(stderr, "%s:%d: property broken: %s\n", \
			    __FILE__, __LINE__, #expr);                 \
			abort();                                        \
		}                                                       \
	} while (0)

/* The input, consumed from the front; past its end, zeros. */
struct fuzz_in {
	const uint8_t *p;
	size_t left;

	uint8_t byte() { return left == 0 ? 0 : (left--, *p++); }
};

static inline uint16_t
be16(const uint8_t *p)
{
	return (uint16_t)(p[0] << 8 | p[1]);
}

#endif /* OST_FUZZ_FUZZ_H */
