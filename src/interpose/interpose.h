/* What every exported entry point needs. */
#ifndef OST_INTERPOSE_H
#define OST_INTERPOSE_H

#include "core/ost.h"
#include "core/receive.h"
#include "os/frio_loader.h"

/* On the export list (ostrel.map); everything else stays hidden. */
#define OST_EXPORT extern "C" __attribute__((visibility("default")))

/*
 * A socket call made by libfrio (or the libraries under it) on our behalf
 * goes straight to the C library: the registry is not for its descriptors,
 * and its caller may hold a record lock.
 */
#define OST_FROM_FRIO() __builtin_expect(ost_in_frio != 0, 0)

/*
 * An interposed call can arrive before the run-time linker has run our
 * initialiser, from another preloaded object's constructor.
 */
#define OST_ENTRY()                                        \
	do {                                               \
		if (__builtin_expect(!ost_initialised, 0)) \
			ost_init();                        \
	} while (0)

#endif /* OST_INTERPOSE_H */
