/* What every exported entry point needs. */
#ifndef OST_XNET_ENTRY_H
#define OST_XNET_ENTRY_H

#include "ost_impl.h"
#include "platform/frio_loader.h"

/* On the export list (ostrel.map); everything else stays hidden. */
#define OST_EXPORT extern "C" __attribute__((visibility("default")))

/*
 * A socket call made by libfrio (or the libraries under it) on our behalf
 * goes straight to the C library: the registry is not for its descriptors,
 * and its caller may hold a record lock.
 */
#define OST_FROM_FRIO() __builtin_expect(ost_in_frio != 0, 0)

#endif /* OST_XNET_ENTRY_H */
