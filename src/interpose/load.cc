/* The one initialiser: runs when the run-time linker loads the library. */
#include "interpose/interpose.h"

__thread volatile unsigned ost_depth;

__attribute__((constructor)) static void
ost_load(void)
{
	ost_init();
}
