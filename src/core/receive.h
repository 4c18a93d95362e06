/*
 * The receive path and readiness: frame validation and copy-out, the
 * receive engine with its stash and slot, poll and select.
 */
#ifndef OST_CORE_RECEIVE_H
#define OST_CORE_RECEIVE_H

#include "ost_impl.h"

#endif /* OST_CORE_RECEIVE_H */
