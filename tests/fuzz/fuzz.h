/*
 * What the fuzz targets share: a check that stays on in every build and
 * says which property failed, and byte readers of a fuzzer's input.
 */
#ifndef OST_FUZZ_FUZZ_H
#define OST_FUZZ_FUZZ_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

/* A broken property: libFuzzer keeps the input that ended the run. */
#define FUZZ_CHECK(expr)                                                \
	do {                                                            \
		if (!(expr)) {                                          \
			fprintf(stderr, "%s:%d: property broken: %s\n", \
			    __FILE__, __LINE__, #expr);                 \
			abort();                                        \
		}                                                       \
	} while (0)

/* The input, consumed from the front; reads past its end give zeros. */
struct fuzz_in {
	const uint8_t *p;
	size_t left;

	uint8_t byte()
	{
		if (left == 0)
			return 0;
		left--;
		return *p++;
	}
};

static inline uint16_t
be16(const uint8_t *p)
{
	return (uint16_t)(p[0] << 8 | p[1]);
}

#endif /* OST_FUZZ_FUZZ_H */
