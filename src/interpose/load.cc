/* The one initialiser: runs when the run-time linker loads the library. */
#include "interpose/interpose.h"

__thread volatile unsigned ost_depth;
__thread uintptr_t ost_outer_call;

__attribute__((constructor)) static void
ost_load(void)
{
	ost_init();
}
