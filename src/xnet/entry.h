/* What every exported entry point needs. */
#ifndef OST_XNET_ENTRY_H
#define OST_XNET_ENTRY_H

#include "ost_impl.h"

/* On the export list (ostrel.map); everything else stays hidden. */
#define OST_EXPORT extern "C" __attribute__((visibility("default")))

#endif /* OST_XNET_ENTRY_H */
